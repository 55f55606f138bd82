// The commands of a session that have no data connection: logging on, settings, directories, RCMD.

#include <exception>
#include <map>
#include <optional>

#include <sys/stat.h>

#include "control_language.h"
#include "session.h"
#include "text.h"
#include "texts.h"

namespace rehearsal {

const std::vector<Session::Verb>& Session::Verbs() {
    static const std::vector<Verb> verbs = {
        {"USER", &Session::User, false, true},
        {"PASS", &Session::Pass, false, true},
        {"QUIT", &Session::Quit, false, true},
        {"AUTH", &Session::Auth, false, true},
        {"PBSZ", &Session::Pbsz, false, true},
        {"PROT", &Session::Prot, false, true},
        {"CWD", &Session::Cwd},
        {"SYST", &Session::Syst},
        {"TIME", &Session::Time},
        {"STRU", &Session::Setting},
        {"MODE", &Session::Setting},
        {"TYPE", &Session::Setting},
        {"SITE", &Session::Setting},
        {"PASV", &Session::Pasv},
        {"LIST", &Session::List, true},
        {"RETR", &Session::Retr, true},
        {"STOR", &Session::Stor, true},
        {"MKD", &Session::Mkd},
        {"RCMD", &Session::Rcmd},
    };
    return verbs;
}

void Session::Auth(const std::string& parameter) {
    if (shared_.tls == nullptr || control_.tls != nullptr || !EqualsIgnoringCase(parameter, "TLS"))
        return Reply(Substitute(text::BadParameter, {verb_}));
    Reply(text::AuthAccepted);
    ProtectControl();
}

void Session::Pbsz(const std::string& parameter) {
    const bool valid = control_.tls != nullptr && parameter == "0";
    Reply(valid ? text::BufferSize : Substitute(text::BadParameter, {verb_}));
}

void Session::Prot(const std::string& parameter) {
    protects_data_ = control_.tls != nullptr && EqualsIgnoringCase(parameter, "P");
    Reply(protects_data_ ? text::DataProtected : Substitute(text::BadParameter, {verb_}));
}

void Session::User(const std::string& parameter) {
    if (shared_.tls != nullptr && control_.tls == nullptr)
        return Reply(Substitute(text::WantsTls, {verb_}));
    user_ = ToUpper(parameter);
    logged_on_ = false;
    Reply(text::EnterPassword);
}

void Session::Pass(const std::string& parameter) {
    logged_on_ =
        !user_.empty() && EqualsIgnoringCase(user_, shared_.options.user) && parameter == shared_.options.password;
    Reply(Substitute(logged_on_ ? text::LoggedOn : text::LogonRejected, {user_}));
}

void Session::Quit(const std::string&) {
    shared_.quits++;
    Reply(text::Goodbye);
    throw SessionEnded();
}

namespace {

// Consumes a number of 1 to 9,999,999.
std::optional<int> ConsumeSeconds(std::string_view& text) {
    const auto number = ConsumeNumber<int>(text);
    return number && *number >= 1 && *number <= 9'999'999 ? number : std::nullopt;
}

} // namespace

void Session::Time(const std::string& parameter) {
    std::string_view rest = parameter;
    const auto idle = ConsumeSeconds(rest);
    const bool valid = idle && (!ConsumePrefix(rest, " ") || ConsumeSeconds(rest)) && rest.empty();
    if (!valid)
        return Reply(Substitute(text::BadParameter, {"TIME"}));
    idle_seconds_ = *idle;
    Reply(Substitute(text::TimeSet, {std::to_string(*idle)}));
}

// STRU, MODE, TYPE and SITE, with the values that a backup client needs.
void Session::Setting(const std::string& parameter) {
    static const std::map<std::string, std::string> replies = {
        {"STRU F", text::Structure},
        {"MODE S", text::Mode},
        {"TYPE A", text::TypeAscii},
        {"TYPE I", text::TypeImage},
        {"SITE LISTFMT 1", Substitute(text::ListFormat, {"1"})},
        {"SITE NAMEFMT 1", Substitute(text::NameFormat, {"1"})},
    };
    const auto reply = replies.find(verb_ + " " + ToUpper(parameter));
    if (reply == replies.end())
        return Reply(Substitute(text::BadParameter, {verb_}));
    if (verb_ == "TYPE")
        image_ = ToUpper(parameter) == "I";
    Reply(reply->second);
}

void Session::Syst(const std::string&) {
    Reply(Substitute(text::System, {shared_.options.release}));
}

void Session::Cwd(const std::string& parameter) {
    const auto path = NormalPath(directory_, parameter);
    const auto status = path ? shared_.store.ReadStatus(*path, true) : std::nullopt;
    if (!status || !S_ISDIR(status->mode))
        return Reply(Substitute(text::NoPath, {parameter}));
    directory_ = *path;
    Reply(Substitute(text::CurrentDirectory, {directory_}));
}

void Session::Mkd(const std::string& parameter) {
    const auto path = NormalPath(directory_, parameter);
    const auto place = path ? shared_.store.Locate(*path, false) : std::nullopt;
    const bool made = place && ::mkdirat(place->directory.Get(), place->name.c_str(), 0777) == 0;
    Reply(Substitute(made ? text::DirectoryMade : text::DirectoryNotMade, {made ? *path : parameter}));
}

void Session::Rcmd(const std::string& parameter) {
    if (parameter.size() > CommandLimit)
        return Reply(text::RemoteTooLong);
    const auto start = std::chrono::steady_clock::now();
    std::uint64_t saved_bytes = 0;
    const Job job{shared_.options, shared_.store, *library_, saved_bytes};
    std::string reply;
    try {
        reply = Substitute(text::RemoteDone, {RunCommand(job, parameter)});
    } catch (const EscapeMessage& escape) {
        reply = Substitute(text::RemoteFailed, {parameter, escape.text});
    } catch (const std::exception& error) { // an error of this machine, a full disk for example
        reply = Substitute(text::RemoteFailed, {parameter, error.what()});
    }
    WaitAtRate(saved_bytes, shared_.options.save_rate, start);
    Reply(reply);
}

} // namespace rehearsal
