#include "backup.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <thread>

#include <sys/stat.h>

#include "backup_plan.h"
#include "listing.h"
#include "path_file.h"

// Filtering and placing entries

namespace {

// Whether the name, "/" and an entry's of /QSYS.LIB, is that of a library to save.
bool IsLibrary(const std::string& name) {
    return HasLibrarySuffix(name) && name != LibrariesPath;
}

bool IsExcluded(std::string_view path, const Settings& settings) {
    return MatchPathFile(path, nullptr, settings.exclude.get(), settings.PathFileRule()) == 0;
}

// Requires: context.entry_name is set.
bool DropExcluded(ListingContext& context) {
    if (!context.settings.exclude)
        return false;
    const std::size_t length = context.path.size();
    AppendToPath(context.path, context.entry_name);
    const bool excluded = IsExcluded(context.path, context.settings);
    if (excluded && context.settings.Verbosity() >= 1)
        LogError("%s: excluded\n", MaskControls(context.path).c_str());
    context.path.resize(length);
    if (excluded)
        MarkPartial(*context.directory);
    return excluded;
}

bool DropOld(ListingContext& context, const ListingEntry& entry) {
    const std::optional<std::int64_t> cutoff = context.settings.cutoff;
    if (!cutoff || S_ISDIR(entry.mode))
        return false;
    if (context.times.ToEpoch(entry.mtime) >= *cutoff)
        return false;
    if (context.settings.Verbosity() >= 1)
        LogError("excluding %s since it's older than given time\n", MaskControls(context.entry_name).c_str());
    return true;
}

void AppendListed(ListingContext& context, std::string_view name, const ListingEntry& entry, bool as_directory) {
    ObjectNode& dir = *context.directory;
    if (as_directory)
        AppendDirectory(dir, name, entry.mode, entry.size, entry.mtime);
    else
        AppendFile(dir, name, entry.mode, entry.size, entry.mtime);
    context.found = true;
}

// Entries of the directory part of an include path, whose last part is a pattern. The library directory is
// never saved as one unit.
void PlaceIncluded(ListingContext& context, const ListingEntry& entry) {
    ObjectNode& root = *context.directory;
    const std::string& name = context.entry_name;
    std::string full_name = name;
    if (root.name != "/") {
        const std::size_t slash = root.name.rfind('/');
        if (slash == root.name.npos || ::fnmatch(root.name.c_str() + slash, name.c_str(), PathMatchFlags) != 0)
            return;
        full_name = root.name.substr(0, slash) + name;
    }
    const bool as_directory = S_ISDIR(entry.mode);
    AppendListed(context, full_name, entry, as_directory);
    if (as_directory && name == LibrariesPath)
        MarkPartial(*root.last_dir);
}

void PlaceEntry(ListingContext& context, const ListingEntry& entry) {
    const ObjectNode& dir = *context.directory;
    const std::string& name = context.entry_name;
    if (dir.parent == nullptr)
        PlaceIncluded(context, entry);
    else if (dir.name != LibrariesPath)
        AppendListed(context, name, entry, S_ISDIR(entry.mode));
    else if (IsLibrary(name))
        // With a cut-off a library is a directory, to find what changed in it.
        AppendListed(context, name, entry, context.settings.cutoff.has_value());
}

// A library, and the document library, is one object to save.
void RetypeWholeObjects(const ListingContext& context, ListingEntry& entry) {
    const std::string& name = context.entry_name;
    if (IsLibrary(name) || name == DocumentsPath)
        entry.mode = (entry.mode & ~static_cast<std::uint32_t>(S_IFMT)) | S_IFREG;
}

// The text without the carriage return that ends a listing's line.
std::string_view WithoutReturn(std::string_view text) {
    return text.ends_with('\r') ? text.substr(0, text.size() - 1) : text;
}

// Returns false after logging the reason.
bool ParseLine(const ListingContext& context, std::string_view line, ListingEntry& entry) {
    if (!context.now) {
        LogFailure("can't break-down now\n");
        return false;
    }
    const std::optional<ListingFailure> failure = ParseListingLine(line, *context.now, entry);
    if (failure)
        LogFailure("%s: %s\n", failure->what, MaskControls(WithoutReturn(failure->text)).c_str());
    return !failure;
}

void CountParseError(ListingContext& context) {
    ++context.parse_errors;
    MarkPartial(*context.directory);
}

void ProcessLine(ListingContext& context, std::string_view line) {
    line = line.substr(0, line.find('\0'));
    ListingEntry entry;
    if (!ParseLine(context, line, entry)) {
        CountParseError(context);
        return;
    }
    if (!entry.leftover.empty())
        LogFailure("leftover %s\n", MaskControls(WithoutReturn(entry.leftover)).c_str());
    if (entry.name == "." || entry.name == "..") // a walk into these would never end
        return;
    context.entry_name.assign(1, '/').append(entry.name);
    if (DropExcluded(context) || DropOld(context, entry))
        return;
    RetypeWholeObjects(context, entry);
    PlaceEntry(context, entry);
}

constexpr std::size_t LongestLine = 4095; // characters

// The one place below main that ends the process: what a listing of such lines names cannot be known.
void RefuseLongLine(std::size_t length) {
    if (length <= LongestLine)
        return;
    LogFailure("listing line too long\n");
    std::exit(255);
}

} // namespace

void BeginListing(ListingContext& context, ObjectNode& directory) {
    context.carry.clear();
    context.directory = &directory;
    context.parse_errors = 0;
    const std::time_t seconds = std::time(nullptr);
    std::tm now;
    context.now = ::localtime_r(&seconds, &now) != nullptr ? std::optional(now) : std::nullopt;
}

int ListingCallback(void* argument, char* data, int* length) {
    auto* const context = static_cast<ListingContext*>(argument);
    if (context == nullptr) {
        LogFailure("bad argument\n");
        return -1;
    }
    std::string_view rest(data, static_cast<std::size_t>(std::max(*length, 0)));
    *length = 0;
    context->totals.list_bytes += static_cast<double>(rest.size());
    if (context->settings.Verbosity() > 4)
        std::fwrite(rest.data(), 1, rest.size(), stdout);
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        if (end == rest.npos) {
            RefuseLongLine(rest.size());
            context->carry = rest; // of a line in three chunks the first part is lost
            return 0;
        }
        RefuseLongLine(context->carry.size() + end);
        if (context->carry.empty()) {
            ProcessLine(*context, rest.substr(0, end));
        } else {
            context->carry.append(rest.substr(0, end));
            ProcessLine(*context, context->carry);
            context->carry.clear();
        }
        rest.remove_prefix(end + 1);
    }
    return 0;
}

// The walk

namespace {

PlanOptions PlanFor(const Settings& settings) {
    return {settings.max_block_size, settings.cutoff.has_value()};
}

// Text after the last line end is a line that the server did not finish: what it names is not known.
void ReportUnfinishedLine(ListingContext& context) {
    if (context.carry.find_first_not_of(" \r") == std::string::npos)
        return;
    LogFailure("unfinished line: %s\n", MaskControls(WithoutReturn(context.carry)).c_str());
    CountParseError(context);
}

// Lists the context's path into `directory`. Returns 0, or -1 when the listing failed.
int ListInto(FtpSession* session, ObjectNode& directory, ListingContext& context) {
    BeginListing(context, directory);
    ++context.totals.list_calls;
    const int result = ListDirectory(session, context.path.c_str(), ListingCallback, &context, &directory);
    if (result == 0)
        ReportUnfinishedLine(context);
    if (context.parse_errors > 0) {
        LogFailure("%d parse errors in directory %s\n", context.parse_errors, MaskControls(context.path).c_str());
        context.totals.parse_errors += static_cast<std::uint64_t>(context.parse_errors);
    }
    return result;
}

// With a cut-off, a library that already holds changed objects is saved whole and need not be searched
// further.
bool IsSettledLibrary(const ObjectNode& dir, const ListingContext& context) {
    return context.settings.cutoff && dir.count != 0 &&
           ::fnmatch("/QSYS.LIB/*.LIB", context.path.c_str(), PathMatchFlags) == 0;
}

// Lists a directory and everything below it. `context.path` is its parent's path, and is the same on return.
void WalkDirectory(FtpSession* session, ObjectNode& dir, ListingContext& context) {
    const std::size_t parent_length = context.path.size();
    AppendToPath(context.path, dir.name);
    if (ListInto(session, dir, context) != 0) {
        LogFailure("list failed\n%s\n", MaskControls(context.path).c_str());
        dir.unlisted = true;
    } else if (!dir.released) {
        for (ObjectNode* child = dir.first_dir.get(); child != nullptr; child = child->next.get()) {
            if (IsSettledLibrary(dir, context))
                break;
            WalkDirectory(session, *child, context);
        }
    }
    context.path.resize(parent_length);
}

// The include list

void NoteNotBackedUp(const std::string& path, const Settings& settings) {
    if (settings.not_backed_up)
        LogMessageTo(settings.not_backed_up.get(), "%s\n", path.c_str());
}

void AppendSpecialObject(ObjectNode& root, std::string_view path, const CalendarTime& now, const Settings& settings) {
    if (!IsExcluded(path, settings))
        AppendFile(root, path, S_IFREG | 0600, 0, now);
}

// Adds what one include path names to the root. Returns -1 when the server's listing failed, which ends the build.
int ResolveIncludePath(FtpSession* session, const std::string& include, ObjectNode& root, ListingContext& context) {
    root.name = include;
    if (include == SecurityDataPath || include == ConfigurationPath)
        return 0;
    const std::size_t slash = include.rfind('/');
    if (slash == include.npos) {
        LogFailure("Invalid object: %s\n", MaskControls(include).c_str());
        NoteNotBackedUp(include, context.settings);
        return 0;
    }
    context.path = slash == 0 ? "/" : include.substr(0, slash);
    if (HasWildCard(context.path)) {
        LogFailure("wild card error: %s\n", MaskControls(include).c_str());
        return 0;
    }
    context.found = false;
    if (ListInto(session, root, context) != 0) {
        LogFailure("list failed\n");
        return -1;
    }
    if (!context.found) {
        LogMessage("Object not found: %s\n", MaskControls(include).c_str());
        NoteNotBackedUp(include, context.settings);
    }
    return 0;
}

// Resolves every include path; without an include file that is the whole server.
int ResolveIncludePaths(FtpSession* session, ObjectNode& root, ListingContext& context) {
    std::FILE* const stream = context.settings.include.get();
    std::string include = "/";
    if (stream == nullptr)
        return ResolveIncludePath(session, include, root, context);
    if (!ReadPathLine(include, stream)) {
        // The one message with a colon and a blank in its prefix.
        constexpr SourceLocation here = SourceLocation::Here();
        LogMessageTo(stderr, "%s[%s:%d] : Error reading from include stream\n", ProgramName, here.Module(), here.line);
        return -1;
    }
    do {
        if (ResolveIncludePath(session, include, root, context) != 0)
            return -1;
    } while (ReadPathLine(include, stream));
    return 0;
}

// Finds everything that the include paths name; the context receives the totals. Returns nothing after a failure, which
// is logged.
ObjectTree BuildIncludeList(FtpSession* session, ListingContext& context) {
    const std::time_t seconds = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    const CalendarTime now = PackTime(local);
    ObjectTree root = NewDirectoryNode(nullptr, "", 0, 0, now);
    AppendSpecialObject(*root, SecurityDataPath, now, context.settings);
    AppendSpecialObject(*root, ConfigurationPath, now, context.settings);
    if (ResolveIncludePaths(session, *root, context) != 0)
        return nullptr;
    root->name.clear();
    context.path.clear();
    for (ObjectNode* child = root->first_dir.get(); child != nullptr; child = child->next.get())
        WalkDirectory(session, *child, context);
    return root;
}

// The archive

// Logs what failed in the archive file.
void ReportArchive(const ArchiveFailure& failure) {
    LogFailure("%s\n", DescribeFailure(failure).c_str());
}

CtarBlock BuildCtarHeader(const ObjectFile& object, std::uint64_t size) {
    bool name_cut;
    const CtarBlock header = EncodeCtarHeader(object.name, size, object.mode, UnpackTime(object.mtime), name_cut);
    if (name_cut)
        LogFailure("path too long\n");
    return header;
}

} // namespace

int ArchiveWriteCallback(void* argument, char* buffer, int* count) {
    auto* const writer = static_cast<ArchiveWriter*>(argument);
    if (writer == nullptr) {
        LogFailure("bad argument\n");
        return -1;
    }
    for (const ArchiveFailure& failure : AppendData(*writer, buffer, *count))
        ReportArchive(failure);
    return *count > 0 ? 1 : 0;
}

// Saving the objects of a kind

namespace {

// One worker's part of the run.
struct WorkerRun {
    FtpSession* session;
    std::uint32_t number; // of the thread, and of its save file on the server
    const Settings& settings;
    ArchiveFile& archive;
    BackupTotals totals{};
};

// Saves one object and writes its report lines. Returns whether it is in the archive. Throws WorkerEnd.
bool ProcessObject(WorkerRun& run, ObjectFile& object) {
    const Settings& settings = run.settings;
    ArchiveWriter writer{run.archive};
    SaveTimes times;
    const EntryTarget target{writer, ArchiveWriteCallback, BuildCtarHeader, ReportArchive};
    const SaveRequest request{object, run.number, settings.save, settings.not_backed_up.get()};
    const bool saved = SaveObject(SaveMemberFor(object.name), run.session, request, times, target) == 0;
    run.totals.bytes += static_cast<std::uint64_t>(writer.bytes);
    if (!saved) {
        LogMessageTo(stderr, "Backup Failure: %s\n", MaskControls(object.name).c_str());
        NoteNotBackedUp(object.name, settings);
        ++run.totals.failures;
        // The socket is closed only when a recovery was refused: a request to end then leaves the next objects alone.
        if (TerminationRequested != 0 && run.session != nullptr && !run.session->control->socket.IsOpen())
            throw WorkerEnd{};
        return false;
    }
    LogMessage("Backup Success: %s\n", MaskControls(object.name).c_str());
    run.totals.seconds += times;
    if (settings.Verbosity() >= 2)
        ReportObject(writer.bytes, times);
    return true;
}

// Saves a directory as one unit.
void SaveDirectory(WorkerRun& run, const ObjectNode& dir) {
    run.totals.attempted += dir.count;
    ObjectFile unit;
    unit.name = dir.name;
    unit.mode = dir.mode;
    unit.mtime = dir.mtime;
    if (!ProcessObject(run, unit))
        run.totals.failed = dir.count;
    else if (run.settings.catalog)
        DumpTree(run.settings.catalog.get(), dir);
}

void SaveFile(WorkerRun& run, ObjectFile& file) {
    ++run.totals.attempted;
    if (!ProcessObject(run, file))
        ++run.totals.failed;
    else if (run.settings.catalog)
        PrintFilePath(run.settings.catalog.get(), file);
}

// Saves every object of a kind tree into the archive.
void SaveTree(WorkerRun& run, const ObjectNode& kind_tree) {
    for (const ObjectNode* dir = kind_tree.first_dir.get(); dir != nullptr; dir = dir->next.get())
        SaveDirectory(run, *dir);
    for (ObjectFile* file = kind_tree.first_file.get(); file != nullptr; file = file->next.get())
        SaveFile(run, *file);
}

// Workers

// What the workers of a run share.
struct WorkerContext {
    const Settings& settings;
    ArchiveFile& archive;
};

// A worker logs in for itself. Without a session every one of its objects fails, and is reported so.
std::unique_ptr<FtpSession> OpenWorkerSession(const Settings& settings) {
    std::unique_ptr<FtpSession> session = NewSession(settings.server->c_str(), "ftp", settings.transport);
    if (Login(session.get(), settings.user->c_str(), settings.password->c_str()) != 0) {
        LogFailure("login failed\n");
        Quit(std::move(session));
    }
    return session;
}

BackupTotals BackupWorker(const WorkerContext& context, const ObjectNode& kind_tree) {
    const std::uint32_t number = RegisterThread();
    std::unique_ptr<FtpSession> session = OpenWorkerSession(context.settings);
    WorkerRun run{session.get(), number, context.settings, context.archive};
    SaveTree(run, kind_tree);
    Quit(std::move(session));
    if (context.settings.Verbosity() >= 1)
        ReportWorker(number, run.totals);
    return run.totals;
}

// One worker of the driver. Joins its thread before `totals` is destroyed; libc++ before 20 has no std::jthread.
struct Worker {
    std::optional<BackupTotals> totals; // set when the worker came to its end
    std::thread thread;

    void Join() {
        if (thread.joinable())
            thread.join();
    }
    ~Worker() { Join(); }
};

void StartWorker(Worker& worker, const WorkerContext& context, const ObjectNode& kind_tree) {
    try {
        worker.thread = std::thread([&worker, &context, &kind_tree] {
            try {
                worker.totals = BackupWorker(context, kind_tree);
            } catch (const WorkerEnd&) {
            } catch (const std::bad_alloc&) {
                LogError("out of memory\n");
            }
        });
    } catch (const std::exception& error) {
        LogFailure("pthread_create(): %s\n", error.what());
    }
}

// Adds what the worker returned; one that returned nothing has failed with its whole tree.
void JoinWorker(Worker& worker, std::size_t kind, const ObjectNode& kind_tree, BackupTotals& totals) {
    worker.Join();
    if (worker.totals) {
        totals += *worker.totals;
        return;
    }
    LogFailure("Failed to retrieve return structure from thread %zu\n", kind);
    totals.attempted += kind_tree.count;
    totals.failed += kind_tree.count;
    totals.failures += kind_tree.count;
}

// A kind without files gets no worker, so its empty directories are not saved; nor are those whose listing failed,
// which may contain anything: returns their number.
std::uint64_t NoteEmptyTree(const ObjectNode& kind_tree, const Settings& settings) {
    std::vector<std::string> unlisted;
    for (const ObjectNode* dir = kind_tree.first_dir.get(); dir != nullptr; dir = dir->next.get()) {
        NoteNotBackedUp(dir->name, settings);
        AppendUnlisted(*dir, "", unlisted);
    }
    return unlisted.size();
}

// One worker per kind that has objects: security data and configuration first and alone, the others together when
// threading is on. After a termination request no further one starts.
BackupTotals RunWorkers(const WorkerContext& context, const KindTrees& trees, ListingTotals& listing) {
    std::array<Worker, ObjectKindCount> workers;
    std::array<bool, ObjectKindCount> running{};
    BackupTotals totals;
    for (std::size_t kind = 0; kind < workers.size(); ++kind) {
        if (TerminationRequested != 0)
            continue;
        if (trees[kind]->count == 0) {
            listing.parse_errors += NoteEmptyTree(*trees[kind], context.settings);
            continue;
        }
        StartWorker(workers[kind], context, *trees[kind]);
        running[kind] = true;
        if (kind == static_cast<std::size_t>(ObjectKind::System) || !context.settings.threading) {
            JoinWorker(workers[kind], kind, *trees[kind], totals);
            running[kind] = false;
        }
    }
    for (std::size_t kind = 0; kind < workers.size(); ++kind)
        if (running[kind])
            JoinWorker(workers[kind], kind, *trees[kind], totals);
    return totals;
}

// The driver

// The run's exit status, by the share of failures.
int JudgeBackup(const BackupTotals& totals, std::uint64_t parse_errors) {
    if (totals.attempted == 0)
        return parse_errors != 0 ? 2 : 0;
    constexpr std::uint64_t tolerated_percent = 9;
    const std::uint64_t troubles = parse_errors + totals.failed;
    if (troubles * 100 / (parse_errors + totals.attempted) > tolerated_percent)
        return 2;
    return troubles != 0 || totals.failures != 0 ? 1 : 0;
}

// Brings the archive to stable storage; returns false after logging the reason.
bool Flush(const ArchiveFile& archive, const std::string& path) {
    const int error = FlushArchive(archive);
    if (error != 0)
        LogFailure("fdatasync(%s): %s\n", path.c_str(), std::strerror(error));
    return error == 0;
}

} // namespace

int BackupDriver(FtpSession* session, const Settings& settings) {
    const std::string& path = *settings.backup_path;
    const double begun = SecondsNow();
    ArchiveFile archive;
    OpenArchive(archive, path);
    if (!archive.descriptor.IsOpen()) {
        if (errno == EWOULDBLOCK)
            LogFailure("%s: another run is writing this archive\n", path.c_str());
        else
            LogFailure("open(%s): %s\n", path.c_str(), std::strerror(errno));
        return -1;
    }
    LogMessage("Building Object Lists\n");
    ListingContext context{settings};
    const ObjectTree include_tree = BuildIncludeList(session, context);
    if (include_tree == nullptr) {
        LogFailure("BuildIncludeList failed\n");
        return -1;
    }
    LogMessage("Building Block Lists\n");
    const BackupPlan plan = BuildBackupPlan(*include_tree, PlanFor(settings));
    ListingTotals listing = context.totals;
    listing.objects_found = plan.objects_found;
    listing.parse_errors += plan.unlisted.size();
    for (const std::string& missing : plan.unlisted)
        NoteNotBackedUp(missing, settings);
    const double listed = SecondsNow();
    const ArchiveFailures begin_failures = BeginArchive(archive); // without the first sentinel every entry fails
    for (const ArchiveFailure& failure : begin_failures)
        ReportArchive(failure);
    const BackupTotals totals = RunWorkers({settings, archive}, plan.trees, listing);
    const bool flushed = Flush(archive, path);
    bool safe = begin_failures.empty();
    safe = IsWritten(settings.catalog.get(), "catalog") && safe;
    safe = IsWritten(settings.not_backed_up.get(), "not backed up") && safe;
    if (TerminationRequested != 0) {
        LogFailure("Backup Terminated Cleanly\n");
        return TerminatedStatus;
    }
    if (!flushed)
        return -1;
    const double ended = SecondsNow();
    LogMessage("** Backup Complete\n");
    ReportListing(listing, listed - begun, settings.Verbosity() >= 1);
    ReportBackup(totals, ended - listed);
    const int status = JudgeBackup(totals, listing.parse_errors);
    return safe || status != 0 ? status : -1;
}
