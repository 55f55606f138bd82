#include "backup.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <thread>

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "listing.h"
#include "path_file.h"
#include "settings.h"

ListingTotals RunListingTotals;

// Filtering and placing entries

namespace {

constexpr int PathMatchFlags = FNM_PATHNAME | FNM_LEADING_DIR;

bool IsExcluded(std::string_view path) {
    return MatchPathFile(path, nullptr, RunSettings.exclude.get()) == 0;
}

// Requires: context.entry_name is set.
bool DropExcluded(ListingContext& context) {
    if (!RunSettings.exclude)
        return false;
    const std::size_t length = context.path.size();
    AppendToPath(context.path, context.entry_name);
    const bool excluded = IsExcluded(context.path);
    if (excluded && RunSettings.verbosity >= 1)
        LogMessageTo(stderr, "%s: %s: excluded\n", ProgramName, context.path.c_str());
    context.path.resize(length);
    if (excluded)
        MarkPartial(*context.directory);
    return excluded;
}

bool DropOld(const ListingContext& context, const ListingEntry& entry) {
    if (!RunSettings.cutoff || S_ISDIR(entry.mode))
        return false;
    std::tm time = UnpackTime(entry.mtime);
    if (std::mktime(&time) >= RunSettings.cutoff_time)
        return false;
    if (RunSettings.verbosity >= 1)
        LogMessageTo(stderr, "%s: excluding %s since it's older than given time\n", ProgramName,
                     context.entry_name.c_str());
    return true;
}

void AppendEntry(ListingContext& context, std::string_view name, const ListingEntry& entry, bool as_directory) {
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
    AppendEntry(context, full_name, entry, as_directory);
    if (as_directory && name == LibrariesPath)
        MarkPartial(*root.last_dir);
}

void PlaceEntry(ListingContext& context, const ListingEntry& entry) {
    const ObjectNode& dir = *context.directory;
    const std::string& name = context.entry_name;
    if (dir.parent == nullptr)
        PlaceIncluded(context, entry);
    else if (dir.name != LibrariesPath)
        AppendEntry(context, name, entry, S_ISDIR(entry.mode));
    else if (HasLibrarySuffix(name) && name != LibrariesPath)
        AppendEntry(context, name, entry, RunSettings.cutoff); // a directory, to find what changed in it
}

// A library, and the document library, is one object to save.
void RetypeWholeObjects(const ListingContext& context, ListingEntry& entry) {
    const std::string& name = context.entry_name;
    if ((HasLibrarySuffix(name) && name != LibrariesPath) || name == DocumentsPath)
        entry.mode = (entry.mode & ~static_cast<std::uint32_t>(S_IFMT)) | S_IFREG;
}

// False after a message.
bool ParseLine(const ListingContext& context, std::string_view line, ListingEntry& entry) {
    if (!context.now) {
        LogMessageTo(stderr, "%scan't break-down now\n", FailureHead().c_str());
        return false;
    }
    const std::optional<ListingFailure> failure = ParseListingLine(line, *context.now, entry);
    if (failure)
        LogMessageTo(stderr, "%s%s: %.*s\n", FailureHead().c_str(), failure->what,
                     static_cast<int>(failure->text.size()), failure->text.data());
    return !failure;
}

void CountParseError(ListingContext& context) {
    ++context.parse_errors;
    MarkPartial(*context.directory);
}

void TakeLine(ListingContext& context, std::string_view line) {
    line = line.substr(0, line.find('\0'));
    ListingEntry entry;
    if (!ParseLine(context, line, entry)) {
        CountParseError(context);
        return;
    }
    if (!entry.leftover.empty())
        LogMessageTo(stderr, "%sleftover %.*s\n", FailureHead().c_str(), static_cast<int>(entry.leftover.size()),
                     entry.leftover.data());
    if (entry.name == "." || entry.name == "..") // a walk into these would never end
        return;
    context.entry_name.assign(1, '/').append(entry.name);
    if (DropExcluded(context) || DropOld(context, entry))
        return;
    RetypeWholeObjects(context, entry);
    PlaceEntry(context, entry);
}

constexpr std::size_t LongestLine = 4095; // characters

void EndForLongLine(std::size_t length) {
    if (length <= LongestLine)
        return;
    LogMessageTo(stderr, "%slisting line too long\n", FailureHead().c_str());
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
        LogMessageTo(stderr, "%sbad argument\n", FailureHead().c_str());
        return -1;
    }
    std::string_view rest(data, static_cast<std::size_t>(std::max(*length, 0)));
    *length = 0;
    RunListingTotals.list_bytes += static_cast<double>(rest.size());
    if (RunSettings.verbosity > 4)
        std::fwrite(rest.data(), 1, rest.size(), stdout);
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        if (end == rest.npos) {
            EndForLongLine(rest.size());
            context->carry = rest; // of a line in three chunks the first part is lost
            return 0;
        }
        EndForLongLine(context->carry.size() + end);
        if (context->carry.empty()) {
            TakeLine(*context, rest.substr(0, end));
        } else {
            context->carry.append(rest.substr(0, end));
            TakeLine(*context, context->carry);
            context->carry.clear();
        }
        rest.remove_prefix(end + 1);
    }
    return 0;
}

// What becomes of a directory

namespace {

// Whether nothing below the directory is younger than the cut-off.
bool IsUnchanged(const ObjectNode& dir) {
    return RunSettings.cutoff && dir.count == 0;
}

bool IsOneUnit(const ObjectNode& dir) {
    return dir.parent != nullptr && !dir.partial && (dir.size <= RunSettings.max_block_size || dir.count == 0);
}

} // namespace

// The walk

namespace {

// Text behind the last line end is a line that the server did not finish: what it names is not known.
void ReportUnfinishedLine(ListingContext& context) {
    if (context.carry.find_first_not_of(" \r") == std::string::npos)
        return;
    LogMessageTo(stderr, "%sunfinished line: %s\n", FailureHead().c_str(), context.carry.c_str());
    CountParseError(context);
}

// Lists the context's path into `directory`. Gives the listing's parse errors, -1 when it failed.
int ListInto(FtpSession* session, ObjectNode& directory, ListingContext& context) {
    BeginListing(context, directory);
    ++RunListingTotals.list_calls;
    const int result = ListDirectory(session, context.path.c_str(), ListingCallback, &context, &directory);
    if (result == 0)
        ReportUnfinishedLine(context);
    if (context.parse_errors > 0) {
        LogMessageTo(stderr, "%s%d parse errors in directory %s\n", FailureHead().c_str(), context.parse_errors,
                     context.path.c_str());
        RunListingTotals.parse_errors += static_cast<std::uint64_t>(context.parse_errors);
    }
    return result != 0 ? -1 : context.parse_errors;
}

// With a cut-off, a library that already holds changed objects is saved whole and need not be searched
// further.
bool IsSettledLibrary(const ObjectNode& dir, const std::string& path) {
    return RunSettings.cutoff && dir.count != 0 && ::fnmatch("/QSYS.LIB/*.LIB", path.c_str(), PathMatchFlags) == 0;
}

} // namespace

int WalkDirectory(FtpSession* session, ObjectNode& dir, ListingContext& context) {
    const std::size_t parent_length = context.path.size();
    AppendToPath(context.path, dir.name);
    int errors = ListInto(session, dir, context);
    if (errors < 0) {
        LogMessageTo(stderr, "%slist failed\n%s\n", FailureHead().c_str(), context.path.c_str());
        dir.unlisted = true;
        if (!IsOneUnit(dir) || RunSettings.cutoff) // saved by what its listing told, which was not all
            ++RunListingTotals.parse_errors;
    } else if (!dir.released) {
        for (ObjectNode* child = dir.first_dir.get(); child != nullptr; child = child->next.get()) {
            if (IsSettledLibrary(dir, context.path))
                break;
            errors += WalkDirectory(session, *child, context);
        }
    }
    context.path.resize(parent_length);
    return errors;
}

// The include list

namespace {

void NoteNotBackedUp(const std::string& path) {
    if (RunSettings.not_backed_up)
        LogMessageTo(RunSettings.not_backed_up.get(), "%s\n", path.c_str());
}

void AppendSpecialObject(ObjectNode& root, std::string_view path, const CalendarTime& now) {
    if (!IsExcluded(path))
        AppendFile(root, path, S_IFREG | 0600, 0, now);
}

bool HasWildCard(std::string_view path) {
    return path.find_first_of("*?") != path.npos;
}

// Adds what one include path names to the root. Gives -1 when the server's listing failed, which ends the
// build.
int ResolveIncludePath(FtpSession* session, const std::string& include, ObjectNode& root, ListingContext& context) {
    root.name = include;
    if (include == SecurityDataPath || include == ConfigurationPath)
        return 0;
    const std::size_t slash = include.rfind('/');
    if (slash == include.npos) {
        LogMessageTo(stderr, "%sInvalid object: %s\n", FailureHead().c_str(), include.c_str());
        NoteNotBackedUp(include);
        return 0;
    }
    context.path = slash == 0 ? "/" : include.substr(0, slash);
    if (HasWildCard(context.path)) {
        LogMessageTo(stderr, "%swild card error: %s\n", FailureHead().c_str(), include.c_str());
        return 0;
    }
    context.found = false;
    if (ListInto(session, root, context) < 0) {
        LogMessageTo(stderr, "%slist failed\n", FailureHead().c_str());
        return -1;
    }
    if (!context.found) {
        LogMessage("Object not found: %s\n", include.c_str());
        NoteNotBackedUp(include);
    }
    return 0;
}

// Resolves every include path; without an include file that is the whole server.
int ResolveIncludePaths(FtpSession* session, ObjectNode& root, ListingContext& context) {
    std::FILE* const stream = RunSettings.include.get();
    std::string include = "/";
    if (stream == nullptr)
        return ResolveIncludePath(session, include, root, context);
    if (!ReadPathLine(include, stream)) {
        LogMessageTo(stderr, "%sError reading from include stream\n", ColonFailureHead().c_str());
        return -1;
    }
    do {
        if (ResolveIncludePath(session, include, root, context) != 0)
            return -1;
    } while (ReadPathLine(include, stream));
    return 0;
}

} // namespace

ObjectTree BuildIncludeList(FtpSession* session) {
    const std::time_t seconds = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&seconds, &local);
    const CalendarTime now = PackTime(local);
    ObjectTree root = NewDirectoryNode(nullptr, "", 0, 0, now);
    AppendSpecialObject(*root, SecurityDataPath, now);
    AppendSpecialObject(*root, ConfigurationPath, now);
    ListingContext context;
    if (ResolveIncludePaths(session, *root, context) != 0)
        return nullptr;
    root->name.clear();
    context.path.clear();
    for (ObjectNode* child = root->first_dir.get(); child != nullptr; child = child->next.get())
        WalkDirectory(session, *child, context);
    return root;
}

// The backup list

namespace {

ObjectNode& KindTree(KindTrees& trees, std::string_view path) {
    return *trees[static_cast<std::size_t>(ClassifyPath(path))];
}

// Places a directory of the include tree and everything below it; `path` is its parent's and comes back so.
void PlaceObject(KindTrees& trees, const ObjectNode& dir, std::string& path) {
    const std::size_t parent_length = path.size();
    AppendToPath(path, dir.name);
    const std::size_t length = path.size();
    if (path.starts_with(LibraryPrefix)) {
        if (!IsUnchanged(dir))
            AppendFile(KindTree(trees, path), path, dir.mode, dir.size, dir.mtime);
    } else if (IsOneUnit(dir)) {
        if (!IsUnchanged(dir)) {
            AdoptDirectory(KindTree(trees, path), dir);
            RunListingTotals.objects_found += dir.count;
        }
    } else {
        for (const ObjectFile* file = dir.first_file.get(); file != nullptr; file = file->next.get()) {
            AppendToPath(path, file->name);
            AdoptFile(KindTree(trees, path), *file);
            path.resize(length);
            ++RunListingTotals.objects_found;
        }
        for (const ObjectNode* child = dir.first_dir.get(); child != nullptr; child = child->next.get())
            if (!child->released)
                PlaceObject(trees, *child, path);
    }
    path.resize(parent_length);
}

} // namespace

KindTrees BuildBackupList(const ObjectNode& include_tree) {
    KindTrees trees;
    for (ObjectTree& tree : trees)
        tree = NewDirectoryNode(nullptr, "", 0, 0, CalendarTime{});
    std::string path;
    PlaceObject(trees, include_tree, path);
    return trees;
}

// Writing the archive

namespace {

constexpr int BlockBytes = static_cast<int>(BlockSize);

// A disk that fills up may take part of a block. That part is taken back, so that the archive stays on its grid and a
// retry writes the same place.
void TakeBackPart(int descriptor, ssize_t part, int wanted, ssize_t written, SourcePlace place) {
    LogMessageTo(stderr, "%swrite(,, %d) = %d\n", FailureHead(place).c_str(), wanted, static_cast<int>(written));
    TruncateArchive(descriptor, ::lseek(descriptor, -part, SEEK_CUR));
}

} // namespace

bool WriteArchiveBlock(int descriptor, const CtarBlock& block, SourcePlace place) {
    const ssize_t written = ::write(descriptor, block.data(), block.size());
    if (written < 0)
        LogMessageTo(stderr, "%swrite(): %s\n", FailureHead(place).c_str(), std::strerror(errno));
    else if (written != BlockBytes)
        TakeBackPart(descriptor, written, BlockBytes, written, place);
    return written == BlockBytes;
}

namespace {

// Writes as many whole blocks of the buffer as one call takes. Gives the bytes written, 0 or less after a
// failure.
ssize_t WriteWholeBlocks(int descriptor, const char* buffer, int count) {
    const int wanted = count / BlockBytes * BlockBytes;
    const ssize_t written = ::write(descriptor, buffer, static_cast<std::size_t>(wanted));
    if (written < 0) {
        LogMessageTo(stderr, "%swrite(, 0x%llX, %d): %s\n", FailureHead().c_str(),
                     static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(buffer)),
                     static_cast<int>(written), std::strerror(errno));
        return written;
    }
    const ssize_t part = written % BlockBytes;
    if (part != 0)
        TakeBackPart(descriptor, part, wanted, written, SourcePlace::Here());
    return written - part;
}

// Moves bytes into the waiting block and writes it when it is full. False when the block could not be
// written.
bool FillBlock(ArchiveWriter& writer, const char*& buffer, int& count) {
    const int taken = std::min(count, BlockBytes - writer.pending);
    std::copy_n(buffer, taken, writer.block.data() + writer.pending);
    buffer += taken;
    count -= taken;
    writer.pending += taken;
    if (writer.pending < BlockBytes)
        return true;
    if (!WriteArchiveBlock(writer.descriptor, writer.block))
        return false;
    writer.bytes += BlockBytes;
    writer.pending = 0;
    return true;
}

// Consumes the buffer as far as it can be written.
void TakeData(ArchiveWriter& writer, const char* buffer, int& count) {
    if (writer.pending > 0 && !FillBlock(writer, buffer, count))
        return;
    while (count >= BlockBytes) {
        const ssize_t written = WriteWholeBlocks(writer.descriptor, buffer, count);
        if (written <= 0)
            return;
        buffer += written;
        count -= static_cast<int>(written);
        writer.bytes += written;
    }
    if (count > 0)
        FillBlock(writer, buffer, count);
}

} // namespace

int ArchiveWriteCallback(void* argument, char* buffer, int* count) {
    auto* const writer = static_cast<ArchiveWriter*>(argument);
    if (writer == nullptr) {
        LogMessageTo(stderr, "%sbad argument\n", FailureHead().c_str());
        return -1;
    }
    if (*count > 0)
        TakeData(*writer, buffer, *count);
    ++writer->calls;
    return *count > 0 ? 1 : 0;
}

int TruncateArchive(int descriptor, off_t offset) {
    if (::lseek(descriptor, offset, SEEK_SET) != offset) {
        LogMessageTo(stderr, "%slseek(): %s\n", FailureHead().c_str(), std::strerror(errno));
        return -1;
    }
    if (::ftruncate(descriptor, offset) != 0) {
        LogMessageTo(stderr, "%sftruncate64(): %s\n", FailureHead().c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
}

CtarBlock BuildCtarHeader(const ObjectFile& object, std::uint64_t size) {
    bool name_cut;
    const CtarBlock header = EncodeCtarHeader(object.name, size, object.mode, UnpackTime(object.mtime), name_cut);
    if (name_cut)
        LogMessageTo(stderr, "%spath too long\n", FailureHead().c_str());
    return header;
}

// Saving the objects of a kind

namespace {

// "name: seconds s rate", for one phase of an object.
void ReportPhase(const char* name, double seconds, double bytes) {
    if (seconds <= 0)
        return;
    const ScaledAmount rate = ScaleDecimal(bytes / seconds);
    LogMessage("%s: %7.3f s %.3f %cB/s\n", name, seconds, rate.value, " KMG"[rate.unit]);
}

void ReportObject(std::int64_t bytes, const TransferStats& stats) {
    const auto amount = static_cast<double>(bytes);
    if (bytes >= 0) {
        const ScaledAmount size = ScaleDecimal(amount);
        LogMessage("Size: %.3f %cB\n", size.value, " KMG"[size.unit]);
    }
    ReportPhase("Save", stats.save, amount);
    if (stats.wait > 0)
        LogMessage("Wait: %7.3f s\n", stats.wait);
    ReportPhase("Xfer", stats.transfer, amount);
}

void AddSeconds(TransferStats& sum, const TransferStats& stats) {
    sum.save += stats.save;
    sum.wait += stats.wait;
    sum.transfer += stats.transfer;
}

} // namespace

int ProcessObject(FtpSession* session, ObjectFile& object, std::uint32_t number, ArchiveWriter& writer,
                  BackupTotals& totals) {
    ++writer.objects;
    writer.pending = 0;
    writer.calls = 0;
    writer.bytes = 0;
    TransferStats stats;
    if (SaveObject(SaveMemberFor(object.name), session, object, number, &stats, ArchiveWriteCallback, writer) != 0) {
        LogMessageTo(stderr, "Backup Failure: %s\n", object.name.c_str());
        NoteNotBackedUp(object.name);
        ++writer.failures;
        return 1;
    }
    LogMessage("Backup Success: %s\n", object.name.c_str());
    AddSeconds(totals.seconds, stats);
    if (RunSettings.verbosity >= 2)
        ReportObject(writer.bytes, stats);
    return 0;
}

int SaveBlock(FtpSession* session, const ObjectNode& kind_tree, std::uint32_t number, int archive,
              BackupTotals& totals) {
    ArchiveWriter writer;
    writer.descriptor = archive;
    if (::fcntl(archive, F_GETFD) < 0) {
        LogMessageTo(stderr, "%sopen(%s): %s\n", FailureHead().c_str(), RunSettings.backup_path->c_str(),
                     std::strerror(errno));
        return -1;
    }
    std::FILE* const catalog = RunSettings.catalog.get();
    for (const ObjectNode* dir = kind_tree.first_dir.get(); dir != nullptr; dir = dir->next.get()) {
        totals.attempted += dir->count;
        ObjectFile unit;
        unit.name = dir->name;
        unit.mode = dir->mode;
        unit.mtime = dir->mtime;
        if (ProcessObject(session, unit, number, writer, totals) != 0)
            totals.failed = dir->count;
        else if (catalog != nullptr)
            DumpTree(catalog, *dir);
        totals.bytes += static_cast<std::uint64_t>(writer.bytes);
    }
    for (ObjectFile* file = kind_tree.first_file.get(); file != nullptr; file = file->next.get()) {
        ++totals.attempted;
        if (ProcessObject(session, *file, number, writer, totals) != 0)
            ++totals.failed;
        else if (catalog != nullptr)
            PrintFilePath(catalog, *file);
        totals.bytes += static_cast<std::uint64_t>(writer.bytes);
    }
    totals.failures = writer.failures;
    return 0;
}

// Workers

BackupTotals& BackupTotals::operator+=(const BackupTotals& other) {
    attempted += other.attempted;
    failed += other.failed;
    AddSeconds(seconds, other.seconds);
    bytes += other.bytes;
    failures += other.failures;
    return *this;
}

namespace {

void ReportSeconds(const TransferStats& seconds) {
    LogMessage("** Total Save Time: %.3f s\n", seconds.save);
    LogMessage("** Total Wait Time: %.3f s\n", seconds.wait);
    LogMessage("** Total Xfer Time: %.3f s\n", seconds.transfer);
}

unsigned long long Printable(std::uint64_t number) {
    return number;
}

void ReportNothingAttempted() {
    LogMessage("** No objects attempted\n");
}

void ReportWorker(std::uint32_t number, const BackupTotals& totals) {
    if (totals.attempted == 0) {
        ReportNothingAttempted();
        return;
    }
    const ScaledAmount amount = ScaleBinary(static_cast<double>(totals.bytes));
    LogMessage("** Thread %u Complete\n", number);
    LogMessage("** Backed up %.3f %cB\n", amount.value, " kMG"[amount.unit]);
    ReportSeconds(totals.seconds);
    LogMessage("** Total Blocks Attempted: %llu\n", Printable(totals.attempted));
    LogMessage("** Total Blocks Failed   : %llu\n", Printable(totals.failed));
}

// A worker logs in for itself. Without a session every one of its objects fails, and is reported so.
std::unique_ptr<FtpSession> OpenWorkerSession() {
    std::unique_ptr<FtpSession> session = NewSession(RunSettings.server->c_str(), "ftp");
    if (Login(session.get(), RunSettings.user->c_str(), RunSettings.password->c_str()) != 0) {
        LogMessageTo(stderr, "%slogin failed\n", FailureHead().c_str());
        Quit(std::move(session));
    }
    return session;
}

std::unique_ptr<BackupTotals> BackupWorker(const ObjectNode& kind_tree, int archive) {
    const std::uint32_t number = RegisterThread(-1);
    auto totals = NewRecord<BackupTotals>();
    if (totals == nullptr) {
        LogMessageTo(stderr, "%sFailed to allocate return structure\n", FailureHead().c_str());
        return nullptr;
    }
    std::unique_ptr<FtpSession> session = OpenWorkerSession();
    SaveBlock(session.get(), kind_tree, number, archive, *totals);
    Quit(std::move(session));
    if (RunSettings.verbosity >= 1)
        ReportWorker(number, *totals);
    return totals;
}

// One worker of the driver: its thread and, when that has been joined, what it returned. The thread goes first, and is
// joined then at the latest.
struct Worker {
    std::unique_ptr<BackupTotals> totals;
    std::jthread thread;
};

void StartWorker(Worker& worker, const ObjectNode& kind_tree, int archive) {
    try {
        worker.thread = std::jthread([&worker, &kind_tree, archive] {
            try {
                worker.totals = BackupWorker(kind_tree, archive);
            } catch (const WorkerEnd&) {
            } catch (const std::bad_alloc&) {
                LogMessageTo(stderr, "%s: out of memory\n", ProgramName);
            }
        });
    } catch (const std::exception& error) {
        LogMessageTo(stderr, "%spthread_create(): %s\n", FailureHead().c_str(), error.what());
    }
}

// Adds what the worker returned; one that returned nothing has failed with its whole tree.
void JoinWorker(Worker& worker, std::size_t kind, const ObjectNode& kind_tree, BackupTotals& totals) {
    if (worker.thread.joinable())
        worker.thread.join();
    if (worker.totals != nullptr) {
        totals += *worker.totals;
        return;
    }
    LogMessageTo(stderr, "%sFailed to retrieve return structure from thread %zu\n", FailureHead().c_str(), kind);
    totals.attempted += kind_tree.count;
    totals.failed += kind_tree.count;
    totals.failures += kind_tree.count;
}

// A kind without files gets no worker, so its empty directories are not saved; nor are those whose listing failed,
// which may hold anything.
void NoteEmptyTree(const ObjectNode& kind_tree) {
    for (const ObjectNode* dir = kind_tree.first_dir.get(); dir != nullptr; dir = dir->next.get()) {
        NoteNotBackedUp(dir->name);
        if (dir->borrowed_from->unlisted)
            ++RunListingTotals.parse_errors;
    }
}

// One worker per kind that has objects: security data and configuration first and alone, the others together
// when threading is on. After a termination request no further one starts.
BackupTotals RunWorkers(const KindTrees& trees, int archive) {
    std::array<Worker, ObjectKindCount> workers;
    std::array<bool, ObjectKindCount> running{};
    BackupTotals totals;
    for (std::size_t kind = 0; kind < workers.size(); ++kind) {
        if (TerminationRequested != 0)
            continue;
        if (trees[kind]->count == 0) {
            NoteEmptyTree(*trees[kind]);
            continue;
        }
        StartWorker(workers[kind], *trees[kind], archive);
        running[kind] = true;
        if (kind == static_cast<std::size_t>(ObjectKind::System) || !RunSettings.threading) {
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

void ReportListing(double seconds) {
    const ListingTotals& listing = RunListingTotals;
    if (listing.list_bytes > 0) {
        const ScaledAmount amount = ScaleBinary(listing.list_bytes);
        LogMessage("** Total List Data: %.3f %cB\n", amount.value, " kMG"[amount.unit]);
        LogMessage("** List Called    : %llu\n", Printable(listing.list_calls));
        LogMessage("** Total List Time: %.3f\n", seconds);
        LogMessage("** Objects Found  : %llu\n", Printable(listing.objects_found));
    }
    if (listing.parse_errors != 0 || RunSettings.verbosity >= 1)
        LogMessage("** Parsing Errors : %llu\n", Printable(listing.parse_errors));
}

// Reports what was saved; gives the run's exit status by the share of failures.
int ReportBackup(const BackupTotals& totals, double seconds) {
    const std::uint64_t parse_errors = RunListingTotals.parse_errors;
    if (totals.attempted == 0) {
        ReportNothingAttempted();
        return parse_errors != 0 ? 2 : 0;
    }
    const ScaledAmount amount = ScaleBinary(static_cast<double>(totals.bytes));
    LogMessage("** Backed up %.3f %cB in %.3f s\n", amount.value, " kMG"[amount.unit], seconds);
    ReportSeconds(totals.seconds);
    LogMessage("** Total Objects Attempted: %llu\n", Printable(totals.attempted));
    LogMessage("** Total Objects Failed   : %llu\n", Printable(totals.failed));
    constexpr std::uint64_t tolerated_percent = 9;
    const std::uint64_t troubles = parse_errors + totals.failed;
    if (troubles * 100 / (parse_errors + totals.attempted) > tolerated_percent)
        return 2;
    return troubles != 0 || totals.failures != 0 ? 1 : 0;
}

// Opens the archive for this run alone and cuts it to zero. Gives an unopened descriptor, with errno set, when that
// fails, and also while another run writes the same file: both would end in one heap.
Descriptor OpenArchive(const std::string& path) {
    Descriptor archive(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (!archive.IsOpen() || (::flock(archive.Get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK))
        return {};
    struct stat status;
    if (::fstat(archive.Get(), &status) == 0 && S_ISREG(status.st_mode) && ::ftruncate(archive.Get(), 0) != 0)
        return {};
    return archive;
}

// Writes the first sentinel. Without it, or with a part of it, every entry fails.
bool BeginArchive(int archive) {
    const CtarBlock sentinel = BuildCtarSentinel();
    const ssize_t written = ::write(archive, sentinel.data(), sentinel.size());
    if (written == BlockBytes)
        return true;
    LogMessageTo(stderr, "%sCTAR sentinel failed write(): %s\n", FailureHead().c_str(), std::strerror(errno));
    if (written > 0)
        TruncateArchive(archive, 0);
    return false;
}

// Brings the archive to stable storage. A device without any, such as /dev/null, has nothing to flush.
bool Flush(int archive, const std::string& path) {
    if (::fdatasync(archive) == 0 || errno == EINVAL)
        return true;
    LogMessageTo(stderr, "%sfdatasync(%s): %s\n", FailureHead().c_str(), path.c_str(), std::strerror(errno));
    return false;
}

} // namespace

int BackupDriver(FtpSession* session) {
    const std::string& path = *RunSettings.backup_path;
    const double begun = SecondsNow();
    const Descriptor archive = OpenArchive(path);
    if (!archive.IsOpen()) {
        LogMessageTo(stderr, "%sopen(%s): %s\n", FailureHead().c_str(), path.c_str(), std::strerror(errno));
        return -1;
    }
    LogMessage("Building Object Lists\n");
    const ObjectTree include_tree = BuildIncludeList(session);
    if (include_tree == nullptr) {
        LogMessageTo(stderr, "%sBuildIncludeList failed\n", FailureHead().c_str());
        return -1;
    }
    LogMessage("Building Block Lists\n");
    const KindTrees trees = BuildBackupList(*include_tree);
    const double listed = SecondsNow();
    bool safe = BeginArchive(archive.Get());
    const BackupTotals totals = RunWorkers(trees, archive.Get());
    const bool flushed = Flush(archive.Get(), path);
    safe = IsWritten(RunSettings.catalog.get(), "catalog") && safe;
    safe = IsWritten(RunSettings.not_backed_up.get(), "not backed up") && safe;
    if (TerminationRequested != 0) {
        LogMessageTo(stderr, "%sBackup Terminated Cleanly\n", FailureHead().c_str());
        std::exit(143);
    }
    if (!flushed)
        return -1;
    const double ended = SecondsNow();
    LogMessage("** Backup Complete\n");
    ReportListing(listed - begun);
    const int status = ReportBackup(totals, ended - listed);
    return safe || status != 0 ? status : -1;
}
