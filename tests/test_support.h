// What the tests share.

#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/types.h>

#include "rehearsal.h"
#include "resources.h"
#include "text.h"

// A directory of its own for one test, gone with it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    std::filesystem::path path;
    std::filesystem::path operator/(const std::string& name) const { return path / name; }
};

bool Holds(const std::string& text, const std::string& part);
std::string ReadFile(const std::filesystem::path& path);
void WriteFile(const std::filesystem::path& path, const std::string& bytes);

// Log text as messages, one a line, without what differs from run to run: the prefixes, the source lines,
// figures of seconds and rates.
std::string Messages(const std::string& log);

// Takes over standard output and error from construction to Take().
class Capture {
public:
    Capture();
    // Both streams' messages, those of standard error first.
    std::string Take();
};

// One finished run of the program.
struct Outcome {
    int status = -1; // -1 - signal when a signal ended it
    std::string out;
    std::string err;
    bool hung = false; // it was killed after two minutes
};

// The program, started as a user starts it, against a rehearsal server. A minute of its waits lasts
// `minute_ms`.
struct Program {
    std::vector<std::string> arguments;
    std::uint16_t port = 0;
    int minute_ms = 60000;
    std::map<int, std::filesystem::path> outputs; // further descriptors, opened for writing
    std::filesystem::path input = "/dev/null";    // standard input
    std::map<std::string, std::string> environment;
    std::uint64_t file_size_limit = UINT64_MAX; // bytes, as setrlimit has it
    bool merged = false;                        // standard error goes where standard output goes
    bool close_standard_streams = false;        // descriptors 0 to 2 are not there at all
    std::string executable = {};                // another program than the one under test

    pid_t Start();
    // A run that has not ended after two minutes is killed.
    Outcome Wait();
    Outcome Run() {
        Start();
        return Wait();
    }

private:
    pid_t process_ = -1;
    TempDir logs_;
};

// A listening socket at the loopback address.
class Listener {
public:
    Listener();
    const sockaddr_in& Address() const { return address_; }
    std::uint16_t Port() const { return ntohs(address_.sin_port); }
    Descriptor Accept() const;

private:
    Descriptor socket_;
    sockaddr_in address_{};
};

// Faults of a rehearsal server: any kind that has no text, a connection that ends before the reply, another reply.
rehearsal::Fault OfKind(rehearsal::Fault::Kind kind, const std::string& command, int nth = 1, std::size_t bytes = 0);
rehearsal::Fault Close(const std::string& command, int nth = 1);
rehearsal::Fault Replace(const std::string& command, const std::string& text, int nth = 1);

// One server, and runs of the program against it.
struct TestSite {
    TempDir root; // the server's store
    TempDir work; // the files of the runs
    std::filesystem::path archive = work / "archive";
    rehearsal::Options options;
    std::unique_ptr<rehearsal::Server> server; // of the last run
    // Puts something between the program and the server's port; returns the port to connect to.
    std::function<std::uint16_t(std::uint16_t port)> detour;
    Program program;

    // Starts a server and the program with these arguments after those for the server and the login.
    pid_t Start(const std::vector<std::string>& arguments);
    Outcome Run(const std::vector<std::string>& arguments, const std::vector<rehearsal::Fault>& faults = {});
    // Writes a file for the runs and returns its path.
    std::string File(const std::string& name, const std::string& text) const;
    // The commands received by one session, or by all of them, each followed by a bar.
    std::string Received(int session = -1) const;
};

// Fills a store with an object or two of every kind.
void WriteObjects(const std::filesystem::path& root);

// One entry of an archive, read by the layout alone.
struct ArchiveEntry {
    std::string name;
    std::string data;
    bool operator==(const ArchiveEntry&) const = default;
};

// An archive as a reader finds it, going from header to header.
struct ArchiveChain {
    std::vector<ArchiveEntry> entries;
    bool sound = false;              // it ended at a sentinel, and nothing broke the format before
    std::size_t behind = 0;          // bytes behind the sentinel, or from where the format was broken
    std::vector<ArchiveEntry> stray; // what further blocks anywhere are headers of, as far as their data are there
};
ArchiveChain ReadArchiveChain(const std::string& archive);

// The entries up to the sentinel; nothing when the archive breaks the format anywhere.
std::optional<std::vector<ArchiveEntry>> ReadArchiveFile(const std::filesystem::path& path);

// The bytes of an archive with these entries, made by the layout alone.
std::string MakeArchive(const std::vector<ArchiveEntry>& entries);

// What differs between two trees, as `diff -r` says it; "" when nothing does.
std::string DiffTrees(const std::filesystem::path& one, const std::filesystem::path& other);
