#include "sweep_support.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include <csignal>
#include <unistd.h>

#include "ctar.h"

namespace fs = std::filesystem;

namespace {

std::set<std::string> Lines(const std::string& text) {
    std::set<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.insert(line);
    return lines;
}

std::map<std::string, std::string> FilesBelow(const fs::path& root) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(root))
        if (entry.is_regular_file() && !entry.is_symlink())
            files[entry.path().lexically_relative(root)] = ReadFile(entry.path());
    return files;
}

std::string ObjectName(const ArchiveEntry& entry) {
    return std::string(CutNameSuffix(entry.name));
}

const ArchiveEntry* Find(const std::vector<ArchiveEntry>& entries, const std::string& name) {
    const auto found = std::ranges::find(entries, name, &ArchiveEntry::name);
    return found == entries.end() ? nullptr : &*found;
}

// Whether the log calls the file, or a directory above it, saved.
bool IsSaved(const std::string& file, const std::string& log) {
    for (std::size_t end = file.size(); end != file.npos && end > 0; end = file.rfind('/', end - 1))
        if (Holds(log, "Backup Success: " + file.substr(0, end) + "\n"))
            return true;
    return false;
}

} // namespace

std::size_t Count(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

std::string ModeName(Mode mode) {
    const char* const names[] = {"list", "backup", "threaded_backup", "restore"};
    return names[static_cast<int>(mode)];
}

Rehearsal::Rehearsal(Mode chosen, bool large) : mode(chosen) {
    // Every kind of object twice where a kind can have two, sizes around the block and the transfer buffer.
    WriteObjects(root_.path);
    WriteFile(root_ / "etc/hosts", "127.0.0.1 localhost");
    if (large)
        WriteFile(root_ / "var/large", std::string(1300000, 'l'));
    if (mode == Mode::List)
        WriteFile(work_ / "include", "/\n/home\n/QSYS.LIB\n");
    if (mode == Mode::Restore) {
        const Rehearsal backup(Mode::Backup, large);
        WriteFile(work_ / "saved", backup.undisturbed_.archive_bytes);
        for (const ArchiveEntry& entry : backup.undisturbed_.archive.entries)
            saved_.push_back(ObjectName(entry));
    }
    undisturbed_ = Run({.disk = "count"});
    EXPECT_EQ(undisturbed_.outcome.status, 0) << undisturbed_.outcome.err;
    EXPECT_EQ(undisturbed_.outcome.err, "");
    EXPECT_EQ(undisturbed_.quits, undisturbed_.sessions);
    EXPECT_TRUE(Holds(undisturbed_.command_line, ":here:***")) << undisturbed_.command_line;
}

Finished Rehearsal::Run(const Disturbance& disturbance) const {
    TestSite site;
    std::atomic<pid_t> process = 0;
    std::atomic<int> commands = 0;
    Finished run;
    if (mode != Mode::Restore)
        site.options.root = root_.path;
    site.options.faults = disturbance.faults;
    site.options.on_command = [&](const std::string&) {
        const int index = commands++;
        while (process == 0)
            ::usleep(100);
        if (index == 0)
            run.command_line = ReadFile("/proc/" + std::to_string(process) + "/cmdline");
        if (index == disturbance.terminate_at) {
            const fs::path status = "/proc/" + std::to_string(process) + "/status";
            ::kill(process, SIGTERM);
            while (Holds(ReadFile(status), "ShdPnd:\t0000000000004000")) // until its signal thread has taken it
                ::usleep(1000);
            ::usleep(5000);
            run.signalled = commands;
        }
    };
    std::shared_ptr<void> relay;
    if (TheRoute().tls) {
        site.options.tls = TheRoute().server;
        site.detour = [&relay](std::uint16_t port) { return TheRoute().start(port, relay); };
    }
    const fs::path mark = site.work / "mark";
    site.program.minute_ms = disturbance.minute_ms;
    site.program.environment = {
        {"TSAN_OPTIONS", "atexit_sleep_ms=20"}, // its usual second a run would be an hour in all
        {"VONDRAL_TEST_DISK", disturbance.disk},
        {"VONDRAL_TEST_MARK", mark}};
    site.program.outputs[9] = site.work / "output";
    site.File("archive", FormerArchive);
    std::vector<std::string> arguments{"-z", "2", "-v2"};
    if (mode == Mode::List)
        arguments.insert(arguments.end(), {"-l", "9", "-i", work_ / "include"});
    else if (mode == Mode::Restore)
        arguments.insert(arguments.end(), {"-r", work_ / "saved"});
    else
        arguments.insert(arguments.end(), {"-b", site.archive, "-C", site.work / "catalog", "-n", "9", "-x",
                                           mode == Mode::Backup ? "no" : "yes"});
    process = site.Start(arguments);
    run.outcome = site.program.Wait();
    const rehearsal::Server& server = *site.server;
    for (int tries = 0; tries < 6000 && server.OpenSessions() > 0; ++tries)
        ::usleep(2500); // the server sees the end of the last one a moment later
    run.sessions_ended = server.OpenSessions() == 0;
    run.exchanges = server.Exchanges();
    run.sessions = server.SessionCount();
    run.quits = server.QuitCount();
    run.struck = server.FaultCount() > 0 || fs::exists(mark) ||
                 (disturbance.terminate_at >= 0 && disturbance.terminate_at < commands);
    std::ifstream counts(disturbance.disk == "count" ? mark : "/dev/null");
    for (std::string call; counts >> call;)
        counts >> run.calls[call];
    (mode == Mode::List ? run.list : run.missed) = Messages(ReadFile(site.work / "output"));
    if (mode == Mode::Restore) {
        run.files = FilesBelow(site.root.path);
    } else if (mode != Mode::List) {
        run.archive_bytes = ReadFile(site.archive);
        run.archive = ReadArchiveChain(run.archive_bytes);
        run.catalog = Messages(ReadFile(site.work / "catalog"));
    }
    return run;
}

std::string Rehearsal::Judge(const Finished& run, const Disturbance& disturbance) const {
    const int status = run.outcome.status;
    const bool backup = mode == Mode::Backup || mode == Mode::ThreadedBackup;
    const bool described = status == 0 || status == 255 || (backup && (status == 1 || status == 2)) ||
                           (status == 143 && disturbance.terminate_at >= 0);
    std::string broken;
    if (run.outcome.hung)
        broken += "it hung\n";
    if (disturbance.Kills() && run.struck ? status != -1 - SIGKILL : !described)
        broken += "it ended with " + std::to_string(status) + "\n";
    if (status > 0 && run.outcome.err.empty())
        broken += "it failed and did not say why\n";
    const Cost cost = run.struck ? disturbance.cost : Cost::Any;
    if (cost == Cost::NotAWord && (status != 0 || run.outcome.err != "" || run.quits != run.sessions))
        broken += "a harmless disturbance, and status " + std::to_string(status) + "\n";
    if (cost == Cost::Nothing && (status != 0 || !Holds(run.outcome.err, "recovering checkpoint") ||
                                  Holds(run.outcome.err, "Backup Failure") || run.files != undisturbed_.files))
        broken += "it did not recover\n";
    if (cost == Cost::OneObject && (status == 255 || Count(run.outcome.err, "Backup Failure: ") > 1))
        broken += "it cost more than one object\n";
    if (Holds(run.outcome.err, "Sanitizer") || Holds(run.outcome.err, "runtime error:"))
        broken += "a sanitizer reported\n";
    if (Holds(run.outcome.out + run.outcome.err + run.missed + run.catalog + run.list + run.command_line,
              rehearsal::Options().password))
        broken += "the passphrase was shown\n";
    if (!run.sessions_ended)
        broken += "a session was left open\n";
    if (mode == Mode::List)
        return broken + JudgeList(run, disturbance);
    return broken + (mode == Mode::Restore ? JudgeRestore(run) : JudgeBackup(run, disturbance));
}

// Success means the whole list; a failure may shorten it, but nothing is made up.
std::string Rehearsal::JudgeList(const Finished& run, const Disturbance& disturbance) const {
    const std::set<std::string> all = Lines(undisturbed_.list), listed = Lines(run.list);
    if (run.outcome.status == 0 && listed != all && !disturbance.server_lies)
        return "status 0, and the list is not whole\n";
    if (listed.size() != Count(run.list, "\n"))
        return "the list holds something twice\n";
    return std::ranges::includes(all, listed) ? "" : "the list holds what is not there\n";
}

// Each object is whole in the archive, or its failure told, listed and counted; what was never tried shows in the
// status.
std::string Rehearsal::JudgeBackup(const Finished& run, const Disturbance& disturbance) const {
    const Outcome& outcome = run.outcome;
    const ArchiveChain& archive = run.archive;
    // The two cases in which entries stand where a reader does not come: behind the sentinel that a broken retrieval
    // leaves, and behind the header of an entry that the disk did not take.
    const bool disk = disturbance.IsOf("write") || disturbance.IsOf("lseek") || disturbance.IsOf("ftruncate") ||
                      disturbance.IsOf("limit");
    const bool broken_retrieval = Holds(outcome.err, "recovering checkpoint") && Holds(outcome.err, "Backup Failure: ");
    const bool may_stray = broken_retrieval || disk;
    const bool ended_early = outcome.status == 255 || outcome.status == 143 || outcome.status < 0;
    const bool no_log = disturbance.IsOf("log") && run.struck;
    std::string broken;
    if (run.archive_bytes == FormerArchive)
        return ended_early ? "" : "nothing was written\n";
    // Some message says that objects may be missing which no message names.
    const bool tells_of_more = Holds(outcome.err, "list failed") || Holds(outcome.err, "parse errors") ||
                               Holds(outcome.err, "Failed to retrieve return structure");
    bool failures = false, in_order = true;
    int cuts = 0;
    for (const ArchiveEntry& whole : undisturbed_.archive.entries) {
        const std::string object = ObjectName(whole);
        const bool success = Holds(outcome.out, "Backup Success: " + object + "\n");
        const bool failure = Holds(outcome.err, "Backup Failure: " + object + "\n");
        const ArchiveEntry* const entry = Find(archive.entries, whole.name);
        const ArchiveEntry* const stray = Find(archive.stray, whole.name);
        const bool listed = Lines(run.missed).contains(object);
        const bool reached = entry != nullptr && entry->data == whole.data;
        const bool cut = disturbance.server_lies && (entry == nullptr ? Holds(outcome.out, "Block returned no data")
                                                                      : whole.data.starts_with(entry->data));
        const bool strayed = may_stray && outcome.status != 0 && stray != nullptr && stray->data == whole.data;
        failures = failures || failure;
        in_order = in_order && reached;
        if (success && failure)
            broken += object + ": success and failure\n";
        cuts += success && !reached && cut ? 1 : 0;
        if (success && !reached && !cut && !strayed)
            broken += object + ": success, and not whole in the archive\n";
        if (failure && !listed)
            broken += object + ": failed, and not in the list of what was not backed up\n";
        if (!success && !failure && !listed && !ended_early && !no_log && !tells_of_more && !disturbance.server_lies)
            broken += object + ": neither saved nor told\n";
        if (!success && entry != nullptr && !disk && !whole.data.starts_with(entry->data))
            broken += object + ": its entry holds what the server does not have\n";
    }
    std::set<std::string> names;
    for (const ArchiveEntry& entry : archive.entries)
        if (FilesOf(ObjectName(entry)).empty() || !names.insert(entry.name).second)
            broken += entry.name + ": twice in the archive, or not of the server\n";
    const std::set<std::string> catalog = Lines(run.catalog);
    for (const std::string& file : catalog)
        if (!IsSaved(file, outcome.out) && !no_log)
            broken += file + ": in the catalog, and not saved\n";
    if (failures && (outcome.status == 0 || Holds(outcome.out, "** Total Objects Failed   : 0\n")))
        broken += "failures were not counted\n";
    if (outcome.status == 0 && !in_order && !disturbance.server_lies)
        broken += "status 0, and the archive is not whole\n";
    // What could not be listed but was saved with the directory above it is missing there, and that was told.
    if (outcome.status == 0 && catalog != Lines(undisturbed_.catalog) && !Holds(outcome.err, "list failed") &&
        !disturbance.server_lies)
        broken += "status 0, and the catalog is not whole\n";
    if (cuts > 1)
        broken += "the server cut one object, and more are not whole\n";
    if (!run.archive_bytes.empty() && !archive.sound && (!disk || outcome.status == 0))
        broken += "the archive does not read to its sentinel\n";
    if (archive.behind != 0 && !may_stray && outcome.status >= 0)
        broken += "bytes behind the sentinel\n";
    return broken;
}

// What is there is exactly what was saved; each entry is back, or its failure told, unless the run ended early; nothing
// was restored twice.
std::string Rehearsal::JudgeRestore(const Finished& run) const {
    const Outcome& outcome = run.outcome;
    std::string broken;
    for (const auto& [path, bytes] : run.files) {
        const auto saved = undisturbed_.files.find(path);
        if (saved == undisturbed_.files.end() || saved->second != bytes)
            broken += path + ": not what was saved\n";
    }
    std::size_t missing = 0;
    for (const std::string& object : saved_) {
        const std::map<std::string, std::string> files = FilesOf(object);
        const bool back = std::ranges::includes(run.files, files);
        const std::string told_as = object.substr(0, object.rfind(".LIB")); // a library is told without
        if (Holds(outcome.out, "Restore Success: " + told_as + "\n") && !back)
            broken += object + ": restored, and not there\n";
        missing += back ? 0 : 1;
    }
    // A restore that the server refuses in part is told, and is no failure.
    const std::string told = Messages(outcome.err);
    if (outcome.status == 0 && missing > std::max(Count(told, "failed to restore object"), Count(told, "]: RST")))
        broken += "status 0, and objects are missing of which no failure was told\n";
    std::map<std::string, int> restores;
    for (const rehearsal::Exchange& exchange : run.exchanges)
        if (exchange.command.starts_with("RCMD RST") && !exchange.command.starts_with("RCMD RSTAUT"))
            if (++restores[exchange.command] == 2)
                broken += "sent twice: " + exchange.command + "\n";
    return broken;
}

std::map<std::string, std::string> Rehearsal::FilesOf(const std::string& object) const {
    const std::string below = object.substr(1);
    std::map<std::string, std::string> files;
    for (const auto& [path, bytes] : mode == Mode::Restore ? undisturbed_.files : FilesBelow(root_.path))
        if (path == below || path.starts_with(below + "/"))
            files[path] = bytes;
    return files;
}

std::string Rehearsal::JudgeRestoreOf(const Finished& backup) const {
    TestSite site;
    const Outcome outcome = site.Run({"-r", site.File("archive", backup.archive_bytes)});
    if (backup.archive_bytes.empty())
        return outcome.status == 255 && Holds(outcome.err, "read short header") ? "" : "an empty archive was taken\n";
    std::string broken;
    if (outcome.status != 0 || outcome.err != "")
        broken += "a restore of what was complete ended with " + std::to_string(outcome.status) + ":\n" + outcome.err;
    std::map<std::string, std::string> expected;
    for (const ArchiveEntry& entry : backup.archive.entries)
        expected.merge(FilesOf(ObjectName(entry)));
    if (FilesBelow(site.root.path) != expected)
        broken += "a restore brought back something else than the entries\n";
    return broken;
}

void Sweep(const char* kind, const Rehearsal& rehearsal, const std::vector<Disturbance>& disturbances,
           const std::function<void(const Finished&, const Disturbance&)>& further) {
    const char* const wish = std::getenv("VONDRAL_SWEEP");
    const bool full = wish != nullptr && std::strcmp(wish, "full") == 0;
    const std::size_t stride = full ? 1 : std::min(SweepStride, 1 + disturbances.size() / 8);
    std::map<int, int> statuses;
    int runs = 0, struck = 0;
    for (std::size_t index = 0; index < disturbances.size(); index += stride) {
        Disturbance disturbance = disturbances[index];
        Finished run = rehearsal.Run(disturbance);
        // Workers of several sessions may ask for more or less from run to run; one session does the same each time,
        // but on a busy machine a short minute may pass before the disturbance comes.
        const bool must_strike = disturbance.disk != "" || rehearsal.mode != Mode::ThreadedBackup;
        for (int tries = 0; tries < 3 && must_strike && !run.struck; ++tries) {
            disturbance.minute_ms *= 4;
            run = rehearsal.Run(disturbance);
        }
        EXPECT_TRUE(run.struck || !must_strike) << disturbance.what;
        EXPECT_EQ(rehearsal.Judge(run, disturbance), "") << disturbance.what << "\n"
                                                         << run.outcome.out << run.outcome.err;
        if (further)
            further(run, disturbance);
        ++runs;
        struck += run.struck ? 1 : 0;
        ++statuses[run.outcome.status];
    }
    std::printf("sweep %s%s/%s: %d runs of %zu, %d struck; ended with", TheRoute().tls ? "tls_" : "",
                ModeName(rehearsal.mode).c_str(), kind, runs, disturbances.size(), struck);
    for (const auto& [status, count] : statuses)
        std::printf(" %s%d: %d", status < 0 ? "signal " : "", status < 0 ? -1 - status : status, count);
    std::printf("\n");
}
