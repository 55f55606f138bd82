// Whole runs under disturbance, and what must be true of every one of them, whatever it was that broke.
//
// A sweep runs once undisturbed, learns from that what can be disturbed, and then runs once for every disturbance. All
// of them are done when VONDRAL_SWEEP is "full", else every SweepStride-th.

#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "test_support.h"

constexpr std::size_t SweepStride = 17; // a prime: no kind of disturbance is left out by rhythm

// What is done to one run.
struct Disturbance {
    std::string what; // for the messages
    std::vector<rehearsal::Fault> faults;
    int minute_ms = 60000;
    std::map<std::string, std::string> environment;
    std::uint64_t file_size_limit = UINT64_MAX;
    int terminate_at = -1;    // SIGTERM when the server receives the command of this index
    bool harmless = false;    // the run must end like an undisturbed one
    bool server_lies = false; // the server calls complete what it has cut
};

// One finished run and what it left.
struct Finished {
    Outcome outcome;
    std::vector<rehearsal::Exchange> exchanges;
    bool sessions_ended = false; // the server has no session left
    std::string archive_bytes;   // of a backup
    ArchiveChain archive;
    std::string missed;                       // messages of the not-backed-up list
    std::string catalog;                      // messages of the catalog
    std::string list;                         // of list mode
    std::map<std::string, std::string> files; // of the server's store after a restore, by path
};

enum class Mode { List, Backup, ThreadedBackup, Restore };
std::string ModeName(Mode mode);

// A sample server and its undisturbed run in one mode.
class Rehearsal {
public:
    explicit Rehearsal(Mode mode);

    // Runs the program under a disturbance.
    Finished Run(const Disturbance& disturbance) const;
    // What is wrong with a run: one line a broken promise, "" when there is none.
    std::string Judge(const Finished& run, const Disturbance& disturbance) const;
    // Restores what a backup left onto an empty server; what is wrong with that: as Judge.
    std::string JudgeRestoreOf(const Finished& backup) const;

    const Finished& Undisturbed() const { return undisturbed_; }
    const Mode mode;

private:
    std::string JudgeList(const Finished& run, const Disturbance& disturbance) const;
    std::string JudgeBackup(const Finished& run, const Disturbance& disturbance) const;
    std::string JudgeRestore(const Finished& run) const;

    TempDir root_; // the server's store; a restore has one of its own and takes the archive made of this
    TempDir work_;
    Finished undisturbed_;
};

// Runs those of the disturbances that are this sweep's, tells of broken promises as failures, and prints how many runs
// were made and how they ended. `kind` names the disturbances, in one word.
void Sweep(const char* kind, const Rehearsal& rehearsal, const std::vector<Disturbance>& disturbances,
           const std::function<void(const Finished&, const Disturbance&)>& further = {});
