// The commands of a session that move no data: logging on, settings, directories, RCMD.

#include <charconv>
#include <exception>
#include <map>
#include <optional>

#include <sys/stat.h>

#include "control_language.h"
#include "session.h"
#include "texts.h"

namespace rehearsal {

const std::vector<Session::Verb>& Session::Verbs() {
    static const std::vector<Verb> verbs = {
        {"USER", &Session::User, false, true},
        {"PASS", &Session::Pass, false, true},
        {"QUIT", &Session::Quit, false, true},
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

// ---- logging on and off

void Session::User(const std::string& parameter) {
    user_ = Upper(parameter);
    logged_on_ = false;
    Reply(text::EnterPassword);
}

void Session::Pass(const std::string& parameter) {
    logged_on_ = !user_.empty() && user_ == Upper(shared_.options.user) && parameter == shared_.options.password;
    Reply(Fill(logged_on_ ? text::LoggedOn : text::LogonRejected, {user_}));
}

void Session::Quit(const std::string&) {
    shared_.quits++;
    Reply(text::Goodbye);
    throw Gone();
}

// ---- settings

namespace {

// A number of 1 to 9,999,999 at the start of `text`, which is cut behind it.
std::optional<int> TakeSeconds(std::string& text) {
    int number = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
    text.erase(0, static_cast<std::size_t>(result.ptr - text.data()));
    return result.ec == std::errc() && number >= 1 && number <= 9'999'999 ? std::optional(number) : std::nullopt;
}

} // namespace

void Session::Time(const std::string& parameter) {
    std::string rest = parameter;
    const auto idle = TakeSeconds(rest);
    bool good = idle.has_value();
    if (good && rest.starts_with(' ')) {
        rest.erase(0, 1);
        good = TakeSeconds(rest).has_value();
    }
    if (!good || !rest.empty())
        return Reply(Fill(text::BadParameter, {"TIME"}));
    idle_seconds_ = *idle;
    Reply(Fill(text::TimeSet, {std::to_string(*idle)}));
}

// STRU, MODE, TYPE and SITE: one value of each is of any use here, two of TYPE.
void Session::Setting(const std::string& parameter) {
    static const std::map<std::string, std::string> replies = {
        {"STRU F", text::Structure},
        {"MODE S", text::Mode},
        {"TYPE A", text::TypeAscii},
        {"TYPE I", text::TypeImage},
        {"SITE LISTFMT 1", Fill(text::ListFormat, {"1"})},
        {"SITE NAMEFMT 1", Fill(text::NameFormat, {"1"})},
    };
    const auto reply = replies.find(verb_ + " " + Upper(parameter));
    if (reply == replies.end())
        return Reply(Fill(text::BadParameter, {verb_}));
    if (verb_ == "TYPE")
        image_ = Upper(parameter) == "I";
    Reply(reply->second);
}

void Session::Syst(const std::string&) {
    Reply(Fill(text::System, {shared_.options.release}));
}

// ---- directories

void Session::Cwd(const std::string& parameter) {
    const auto path = NormalPath(directory_, parameter);
    const auto status = path ? shared_.store.Look(*path, true) : std::nullopt;
    if (!status || !S_ISDIR(status->mode))
        return Reply(Fill(text::NoPath, {parameter}));
    directory_ = *path;
    Reply(Fill(text::CurrentDirectory, {directory_}));
}

void Session::Mkd(const std::string& parameter) {
    const auto path = NormalPath(directory_, parameter);
    const auto place = path ? shared_.store.Locate(*path, false) : std::nullopt;
    const bool made = place && ::mkdirat(place->directory.get(), place->name.c_str(), 0777) == 0;
    Reply(Fill(made ? text::DirectoryMade : text::DirectoryNotMade, {made ? *path : parameter}));
}

// ---- control language

void Session::Rcmd(const std::string& parameter) {
    if (parameter.size() > CommandLimit)
        return Reply(text::RemoteTooLong);
    const Job job{shared_.options, shared_.store, *library_};
    std::string reply;
    try {
        reply = Fill(text::RemoteDone, {RunCommand(job, parameter)});
    } catch (const Escape& escape) {
        reply = Fill(text::RemoteFailed, {parameter, escape.text});
    } catch (const std::exception& error) { // the host's refusal, a full disk for example
        reply = Fill(text::RemoteFailed, {parameter, error.what()});
    }
    Reply(reply);
}

} // namespace rehearsal
