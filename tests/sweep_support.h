// Whole runs under disturbance, and what must be true of every one of them, whatever it was that broke.
//
// A sweep runs once undisturbed, learns from that what can be disturbed, and then runs once for every disturbance. All
// of them are done when VONDRAL_SWEEP is "full", else every SweepStride-th, of a short sweep more. A disturbance counts
// when it has struck: its command came, its call was made.

#pragma once

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "test_support.h"

constexpr std::size_t SweepStride = 17; // a prime: no kind of disturbance is left out by rhythm

// What a disturbance may cost.
enum class Cost {
    Any,       // what the promises leave open
    OneObject, // of a backup, at most
    Nothing,   // the connection is lost, taken up anew, and the run succeeds
    NotAWord,  // the run is like an undisturbed one
};

// What is done to one run.
struct Disturbance {
    std::string what = {}; // for the messages
    std::vector<rehearsal::Fault> faults = {};
    int minute_ms = 60000;
    std::string disk = {}; // what befalls the program's own outputs, as VONDRAL_TEST_DISK takes it
    int terminate_at = -1; // SIGTERM when the server receives the command of this index
    Cost cost = Cost::Any;
    bool server_lies = false; // the server calls complete what it has cut

    bool Kills() const { return disk.ends_with(":kill"); }
    bool IsOf(const char* call) const { return disk.starts_with(std::string(call) + ':'); }
};

// One finished run and what it left.
struct Finished {
    Outcome outcome;
    bool struck = false;                      // the disturbance took place
    int signalled = 0;                        // how many commands had come when the program had taken its SIGTERM
    std::map<std::string, std::size_t> calls; // by their kinds, of a run that counts them
    int sessions = 0;                         // on the server; `quits` of them ended by QUIT
    int quits = 0;
    std::vector<rehearsal::Exchange> exchanges;
    bool sessions_ended = false; // the server has no session left
    std::string command_line;    // as the process list shows it at the first command
    std::string archive_bytes;   // of a backup
    ArchiveChain archive;
    std::string missed;                       // messages of the not-backed-up list
    std::string catalog;                      // messages of the catalog
    std::string list;                         // of list mode
    std::map<std::string, std::string> files; // of the server's store after a restore, by path
};

// What is between the program and the server in every run of this test program: nothing, or the relay for TLS.
struct SweepRoute {
    bool tls = false;
    rehearsal::TlsOptions server = {}; // the server's side
    // Starts the way to the server's port for one run; it ends with `owner`.
    std::function<std::uint16_t(std::uint16_t port, std::shared_ptr<void>& owner)> start = {};
};
const SweepRoute& TheRoute();

enum class Mode { List, Backup, ThreadedBackup, Restore };
std::string ModeName(Mode mode);

// How often the part stands in the text.
std::size_t Count(const std::string& text, const std::string& part);

// What the file of the archive holds before a backup.
inline const std::string FormerArchive(2000, 'f');

// A sample server and its undisturbed run in one mode.
class Rehearsal {
public:
    // `large` adds a file that takes many transfer buffers.
    explicit Rehearsal(Mode mode, bool large = false);

    // Runs the program under a disturbance.
    Finished Run(const Disturbance& disturbance) const;
    // What is wrong with a run: one line a broken promise, "" when there is none.
    std::string Judge(const Finished& run, const Disturbance& disturbance) const;
    // Restores what a backup left onto an empty server, which must bring back the entries up to the sentinel and
    // nothing else; what is wrong with that: as Judge.
    std::string JudgeRestoreOf(const Finished& backup) const;

    const Finished& Undisturbed() const { return undisturbed_; }
    const Mode mode;

private:
    std::string JudgeList(const Finished& run, const Disturbance& disturbance) const;
    std::string JudgeBackup(const Finished& run, const Disturbance& disturbance) const;
    std::string JudgeRestore(const Finished& run) const;
    // The files of the server below an object.
    std::map<std::string, std::string> FilesOf(const std::string& object) const;

    TempDir root_; // the server's store; a restore has one of its own and takes the archive made of this
    TempDir work_;
    std::vector<std::string> saved_; // the objects of the archive that a restore takes
    Finished undisturbed_;
};

// Runs those of the disturbances that are this sweep's, tells of broken promises as failures, and prints how many runs
// were made and how they ended. `kind` names the disturbances, in one word.
void Sweep(const char* kind, const Rehearsal& rehearsal, const std::vector<Disturbance>& disturbances,
           const std::function<void(const Finished&, const Disturbance&)>& further = {});
