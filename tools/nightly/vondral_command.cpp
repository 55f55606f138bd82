#include "vondral_command.h"

#include <array>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "report/progress.h"
#include "report_files.h"
#include "support.h"

namespace nightly {

std::vector<std::string> RelayCommand(const Config& config, const std::string& host) {
    std::vector<std::string> command{FindProgram("vondral-tls"), "--server", host};
    if (!config.tls->ca.empty())
        command.insert(command.end(), {"--ca", config.tls->ca});
    const bool is_spare = config.drill && host == config.drill->server && host != config.server;
    if (const std::string& pin = is_spare ? config.drill->pin : config.tls->pin; !pin.empty())
        command.insert(command.end(), {"--pin", pin});
    return command;
}

std::vector<std::string> VondralCommand(const Config& config, const std::string& server) {
    const std::string host = server.empty() ? config.server : server;
    std::vector<std::string> command;
    if (config.tls) {
        command = RelayCommand(config, host);
        command.emplace_back("--");
    }
    const std::vector<std::string> own{FindProgram("vondral"),
                                       "--server",
                                       config.tls ? "{}" : host,
                                       "--credentials",
                                       config.login + ":file:" + PassphraseFile(config),
                                       "--timeout",
                                       std::to_string(config.timeout)};
    command.insert(command.end(), own.begin(), own.end());
    return command;
}

Command BackupCommand(const Config& config, const BackupRequest& request) {
    Command command;
    command.arguments = VondralCommand(config);
    const auto add = [&command](const char* option, const std::string& value) {
        if (!value.empty())
            command.arguments.insert(command.arguments.end(), {option, value});
    };
    add("--backup", request.archive);
    add("--Catalog", request.catalog);
    add("--notbackedup", "3");
    add("--include", request.include);
    add("--exclude", request.exclude);
    add("--date", request.cutoff ? std::to_string(*request.cutoff) : "");
    add("--precheck", config.precheck ? "yes" : "no");
    add("--wait", std::to_string(config.wait));
    command.arguments.emplace_back("-v2"); // sizes and times of each object; no passphrase, which begins at -v3
    command.output = request.log;
    command.files[3] = request.missed;
    // The log and the times of listings are in the server's zone.
    command.environment["TZ"] = request.zone;
    return command;
}

void LogFollower::Follow() {
    if (!log_.IsOpen())
        log_.Reset(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 65536> piece;
    ssize_t count = 0;
    while (log_.IsOpen() && (count = ReadSome(log_.Get(), piece.data(), piece.size())) > 0)
        report::SplitLines(splitter_, {piece.data(), static_cast<std::size_t>(count)}, handle_);
}

void LogFollower::Finish() {
    Follow();
    report::FlushLine(splitter_, handle_);
}

namespace {

// Shows how far a backup is.
struct LiveLine {
    const BackupRequest& request;
    report::Expectation expected;
    report::ProgressLine line{STDERR_FILENO};
    report::LoggedRun run{};
    LogFollower log;
    double begun = SecondsNow();

    LiveLine(const BackupRequest& of, const report::Expectation& like)
        : request(of), expected(like),
          log(of.log, [this](std::string_view text) { report::ProcessLogLine(run, text); }) {}
    void Show() {
        log.Follow();
        report::Progress progress{.seconds = SecondsNow() - begun, .archive = {}, .expected = expected};
        struct stat status {};
        if (::stat(request.archive.c_str(), &status) == 0)
            progress.archive = static_cast<double>(status.st_size);
        line.Show(report::ProgressText(run, progress));
    }
};

} // namespace

int RunBackup(const Config& config, const BackupRequest& request, int lock, const Night* like) {
    Command command = BackupCommand(config, request);
    command.lock = lock;
    std::unique_ptr<LiveLine> live;
    if (::isatty(STDERR_FILENO) != 0) {
        live = std::make_unique<LiveLine>(request, ExpectationFrom(like));
        command.tick = [&live] { live->Show(); };
    }
    return RunCommand(command);
}

} // namespace nightly
