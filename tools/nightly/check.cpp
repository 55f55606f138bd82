// vondral-nightly check: what can be found out before the first night, without saving anything.

#include "subcommands.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>

#include <netdb.h>
#include <sys/socket.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "config.h"
#include "failure.h"
#include "moments.h"
#include "night.h"
#include "path_file.h"
#include "process.h"
#include "records.h"
#include "report/display.h"
#include "resources.h"
#include "run.h"
#include "server_listing.h"
#include "text.h"
#include "vondral_command.h"

namespace nightly {

namespace {

// The state of the checks.
struct Checks {
    const Config& config;
    std::string scratch; // directory
    int failed = 0;

    bool Report(bool good, const std::string& what, const std::string& advice = {}) {
        std::printf("%s  %s%s\n", good ? "ok    " : "FAILED", Shown(what).c_str(),
                    good || advice.empty() ? "" : (": " + Shown(advice)).c_str());
        std::fflush(stdout);
        failed += good ? 0 : 1;
        return good;
    }
};

// A directory that is gone with its owner.
class ScratchDirectory {
public:
    ScratchDirectory() : path_(std::filesystem::temp_directory_path() / "vondral-check.XXXXXX") {
        if (::mkdtemp(path_.data()) == nullptr)
            throw Failure(ctar::WithReason(path_));
    }
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

bool CheckName(Checks& checks, const std::string& host) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int error = ::getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (found != nullptr)
        ::freeaddrinfo(found);
    return checks.Report(error == 0, "the name " + host + " has an IPv4 address", ::gai_strerror(error));
}

// The last line of a file, for what went wrong; the last one of vondral-tls, which says more, if there is one.
std::string LastLine(const std::string& path) {
    std::string text = ReadSmallFile(path);
    if (const std::size_t relay = text.rfind("vondral-tls: "); relay != text.npos)
        text.resize(std::min(text.find('\n', relay), text.size()));
    while (text.ends_with('\n'))
        text.pop_back();
    return text.substr(text.rfind('\n') == text.npos ? 0 : text.rfind('\n') + 1);
}

// What the server shows over TLS: protocol, cipher, certificate and its expiry.
bool CheckTls(Checks& checks) {
    if (!checks.config.tls)
        return true;
    Command command;
    command.arguments = RelayCommand(checks.config, checks.config.server);
    command.arguments.emplace_back("--check");
    command.output = checks.scratch + "/tls";
    const bool good = RunCommand(command) == 0;
    if (!checks.Report(good, "TLS", good ? "" : LastLine(command.output)))
        return false;
    std::ifstream shown(command.output);
    for (std::string line; std::getline(shown, line);)
        std::printf("        %s\n", Shown(line).c_str());
    return true;
}

bool CheckPassphrase(Checks& checks) {
    try {
        PassphraseFile(checks.config);
        return true;
    } catch (const Failure& failure) {
        return checks.Report(false, "passphrase", failure.what());
    }
}

bool CheckLogin(Checks& checks) {
    Command command;
    command.arguments = VondralCommand(checks.config);
    command.arguments.emplace_back("--test");
    command.output = checks.scratch + "/login";
    const bool good = RunCommand(command) == 0;
    return checks.Report(good, "login as " + checks.config.login, good ? "" : LastLine(command.output));
}

void CheckPathFile(Checks& checks, const std::string& path, PathFileUse use) {
    if (path.empty())
        return;
    const Stream file(std::fopen(path.c_str(), "re"));
    if (!checks.Report(file != nullptr, path + " can be read", std::strerror(errno)))
        return;
    for (const std::string& mistake : FindMistakes(file.get(), use))
        checks.Report(false, path, mistake);
}

double AvailableBytes(const std::string& directory) {
    struct statvfs room {};
    ::statvfs(directory.c_str(), &room);
    return static_cast<double>(room.f_bavail) * static_cast<double>(room.f_frsize);
}

void CheckDirectory(Checks& checks) {
    const std::string& directory = checks.config.directory;
    const bool usable = ::access(directory.c_str(), R_OK | W_OK | X_OK) == 0;
    if (!checks.Report(usable, directory + " can be written to", std::strerror(errno)))
        return;
    const std::vector<Night> nights = ListOwnNights(checks.config);
    const Night* const last = LastGood(nights, std::time(nullptr), Level::Full);
    const double available = AvailableBytes(directory);
    const double needed = last == nullptr ? 0 : static_cast<double>(last->record->bytes);
    checks.Report(
        available > needed,
        FormatText("%s free in %s%s", report::ShowBytes(available).c_str(), directory.c_str(),
                   last == nullptr ? "" : (", the last full night took " + report::ShowBytes(needed)).c_str()),
        "not enough for another one");
}

void CheckClock(Checks& checks, const ServerListing& listing) {
    constexpr double tolerated = 120; // seconds: listings are to the minute, and clocks differ a little
    if (listing.newest == 0)
        return;
    const double ahead = std::difftime(listing.newest, std::time(nullptr));
    std::string newest = FormatText("%s, %s ago (%s)", ShowMoment(listing.newest, checks.config.timezone).c_str(),
                                    ShowSpan(std::max(-ahead, 0.0)).c_str(), listing.newest_path.c_str());
    // A clock that is behind looks like a server on which nothing happens.
    constexpr double busy = 3600; // seconds within which a server in use changes something
    if (ahead < -busy)
        newest += "; if something was changed there since, its clock is behind ours, or timezone is not its zone";
    checks.Report(ahead <= tolerated, "the newest object on the server is of " + newest,
                  FormatText("%s in the future: the server's clock differs from ours, or timezone is not its zone",
                             ShowSpan(ahead).c_str()));
}

// Before the first night, the listing tells what it will need at least.
void CheckFirstRoom(Checks& checks, const ServerListing& listing) {
    if (LastGood(ListOwnNights(checks.config), std::time(nullptr), Level::Full) != nullptr)
        return;
    double listed = 0;
    for (const auto& [path, totals] : listing.totals)
        listed += static_cast<double>(totals.bytes);
    checks.Report(AvailableBytes(checks.config.directory) > listed,
                  "room for the " + report::ShowBytes(listed) + " that are listed", "not enough for the first night");
}

void CheckListing(Checks& checks) {
    const ServerListing listing = ListServer(checks.config, checks.scratch);
    if (!checks.Report(listing.failed == 0, "directories can be listed over passive connections",
                       "allow the server's passive ports in the firewall, and the directories to this user"))
        return;
    CheckClock(checks, listing);
    CheckFirstRoom(checks, listing);
    std::printf("\nwhat a full night would save, as listed:\n");
    std::vector<std::vector<std::string>> rows;
    for (const auto& [path, totals] : listing.totals)
        rows.push_back(
            {Shown(path), std::to_string(totals.files), report::ShowBytes(static_cast<double>(totals.bytes))});
    PrintTable({"below", ">files", ">size"}, rows);
}

int Check(const std::string& configs, const std::string& name) {
    const Config config = ReadConfig(configs, name);
    const ScratchDirectory scratch;
    Checks checks{config, scratch.Path()};
    CatchStopRequests();
    CheckPathFile(checks, config.include, PathFileUse::BackupInclude);
    CheckPathFile(checks, config.exclude, PathFileUse::BackupExclude);
    CheckDirectory(checks);
    if (CheckPassphrase(checks) && CheckName(checks, config.server) && CheckTls(checks) && CheckLogin(checks))
        CheckListing(checks);
    if (config.drill)
        CheckName(checks, config.drill->server);
    return checks.failed == 0 ? Good : Bad;
}

} // namespace

Action DeclareCheck(CLI::App& command, const std::string& configs) {
    static std::string name;
    command.add_option("NAME", name, "the server")->required();
    return [&configs] { return Check(configs, name); };
}

} // namespace nightly
