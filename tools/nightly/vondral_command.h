// Command lines for vondral, which this program runs as a child and never reimplements.

#pragma once

#include <optional>
#include <string>
#include <vector>

#include "config.h"
#include "process.h"
#include "report/line_splitter.h"
#include "resources.h"
#include "run.h"

namespace nightly {

// vondral-tls with the server and what to trust: the pin is that of the server, or of the drill's spare one. Requires:
// the configuration has `tls`.
std::vector<std::string> RelayCommand(const Config& config, const std::string& host);

// The program and its options for the server and the login; through vondral-tls when the configuration says so.
// `server` is another one than the configuration's when it is not empty. Throws Failure when a program or the
// passphrase is not there.
std::vector<std::string> VondralCommand(const Config& config, const std::string& server = {});

// The command of one attempt of a night.
Command BackupCommand(const Config& config, const BackupRequest& request);

// Runs it. With a terminal on standard error, a line there shows the progress, compared with `like`,
// a night that is probably like this one; null when there is none.
int RunBackup(const Config& config, const BackupRequest& request, int lock, const Night* like);

// Reads the log of a run that another process writes, by whole lines.
class LogFollower {
public:
    LogFollower(std::string path, report::LineHandler handle) : path_(std::move(path)), handle_(std::move(handle)) {}
    void Follow(); // handles the lines that have become complete
    void Finish(); // at the end of the run: handles a last line without a line end, too

private:
    std::string path_;
    report::LineHandler handle_;
    report::LineSplitter splitter_;
    Descriptor log_;
};

} // namespace nightly
