#include "restore.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "ctar.h"
#include "path_file.h"
#include "settings.h"

// Reading the archive

namespace {

const char* ArchivePath() {
    return RunSettings.restore_path->c_str();
}

// "-" is standard input. Data that is read once gains nothing from the page cache, so a file is read directly where
// its file system has that. Anything else is left alone: a named pipe must not be opened twice.
Descriptor OpenArchive() {
    if (*RunSettings.restore_path == "-")
        return Descriptor(STDIN_FILENO);
    Descriptor archive(::open(ArchivePath(), O_RDONLY | O_CLOEXEC));
    struct stat status;
    if (archive.IsOpen() && ::fstat(archive.Get(), &status) == 0 &&
        (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode)))
        ::fcntl(archive.Get(), F_SETFL, O_RDONLY | O_DIRECT);
    return archive;
}

// Waits for a pipe that its other user has made non-blocking.
bool AwaitInput(int descriptor) {
    pollfd input{descriptor, POLLIN, 0};
    return ::poll(&input, 1, -1) > 0;
}

bool IsReadDirectly(int descriptor) {
    const int flags = ::fcntl(descriptor, F_GETFL);
    return flags >= 0 && (flags & O_DIRECT) != 0;
}

// Whether reads wait for a disk: direct reads do, but for those of files that are in memory anyway.
bool WaitsForDisk(int descriptor) {
    struct statfs system;
    return IsReadDirectly(descriptor) && (::fstatfs(descriptor, &system) != 0 || system.f_type != TMPFS_MAGIC);
}

// Goes on without direct input; false when it was off already.
bool StopDirectInput(int descriptor) {
    return IsReadDirectly(descriptor) && ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) & ~O_DIRECT) == 0;
}

// Reads until `length` bytes are in or the archive ends: a pipe that delivers odd pieces must not shift the
// grid of blocks. Gives the bytes read, or -1 when the first read fails. `buffer` and `length` suit direct
// input.
ssize_t ReadArchive(int descriptor, char* buffer, std::size_t length) {
    std::size_t held = 0;
    while (held < length) {
        const ssize_t count = ::read(descriptor, buffer + held, length - held);
        if (count < 0 && errno == EINVAL && StopDirectInput(descriptor))
            continue;
        if (count < 0 && errno == EAGAIN && AwaitInput(descriptor))
            continue;
        if (count < 0 && held == 0)
            return -1;
        if (count <= 0)
            break;
        held += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(held);
}

unsigned long long Printable(std::int64_t number) {
    return static_cast<unsigned long long>(number);
}

} // namespace

int ArchiveReadCallback(void* argument, char* buffer, int* count) {
    auto* const reader = static_cast<ArchiveReader*>(argument);
    if (reader == nullptr) {
        LogMessageTo(stderr, "%sbad argument\n", FailureHead().c_str());
        return -1;
    }
    if (reader->left <= 0) {
        *count = 0;
        return 0;
    }
    const std::int64_t length = RoundToBlocks(std::min<std::int64_t>(reader->left, *count));
    const bool ahead = reader->ahead.Take(buffer, static_cast<std::size_t>(length));
    const ssize_t got = ahead ? length : ReadArchive(reader->descriptor, buffer, static_cast<std::size_t>(length));
    if (got < 0) {
        LogMessageTo(stderr, "%sread(%s,, %d): %s\n", FailureHead().c_str(), ArchivePath(), static_cast<int>(length),
                     std::strerror(errno));
        return -1;
    }
    *count = static_cast<int>(std::min<std::int64_t>(got, reader->left));
    ++reader->calls;
    reader->left -= got;
    return 0;
}

namespace {

// Reads `count` bytes, whole blocks, into nowhere.
int ReadOver(int descriptor, std::int64_t count) {
    static Mapping scratch; // one page, made by the first skip that needs it; suits direct input
    if (!scratch && !scratch.Map(static_cast<std::size_t>(PageSize))) {
        LogMessageTo(stderr, "%smmap(, %d,, MAP_ANONYMOUS): %s\n", FailureHead().c_str(), PageSize,
                     std::strerror(errno));
        return -1;
    }
    while (count > 0) {
        const std::int64_t length = std::min<std::int64_t>(PageSize, count);
        const ssize_t got = ReadArchive(descriptor, scratch.Data(), static_cast<std::size_t>(length));
        if (got < 0)
            LogMessageTo(stderr, "%sread(list, %d): %s\n", FailureHead().c_str(), static_cast<int>(length),
                         std::strerror(errno));
        if (got <= 0) {
            LogMessageTo(stderr, "%sdidn't finish consuming 0x%llX bytes\n", FailureHead().c_str(), Printable(count));
            return -1;
        }
        count -= got;
    }
    return 0;
}

} // namespace

int SkipArchiveData(int descriptor, std::int64_t count) {
    const std::int64_t length = RoundToBlocks(count);
    errno = 0;
    if (::lseek(descriptor, length, SEEK_CUR) >= 0 || errno == 0)
        return 0;
    if (errno != ESPIPE)
        LogMessageTo(stderr, "%slseek64(, 0x%llX,, SEEK_CUR): %s\n", FailureHead().c_str(), Printable(length),
                     std::strerror(errno));
    return ReadOver(descriptor, length);
}

// One entry

namespace {

// The run over one archive.
struct RestoreRun {
    FtpSession* session = nullptr;
    int archive = -1;
    alignas(BlockSize) CtarBlock header{};
    ssize_t header_read = 0;   // what the last read of a header gave
    int header_error = 0;      // its errno
    std::uint64_t offset = 0;  // of the current header; sizes that add up to more than a file can hold wrap it
    int result = 0;            // of the last entry, or of what ended the run
    int restored_profiles = 0; // user profile entries restored: their authorities follow at the end
};

// Whether the header just read begins an entry, whose size is then set. Otherwise the run over the archive
// ends.
bool BeginsEntry(RestoreRun& run, std::int64_t& size) {
    const unsigned long long offset = run.offset;
    if (run.header_read >= 0 && run.header_read < static_cast<ssize_t>(BlockSize)) {
        LogMessageTo(stderr, "%sread short header at offset 0x%llX\n", FailureHead().c_str(), offset);
        run.result = -1;
        return false;
    }
    if (TerminationRequested != 0)
        return false;
    if (!HasGoodChecksum(run.header)) {
        LogMessageTo(stderr, "%s: bad header checksum at offset 0x%llX\n", ProgramName, offset);
        run.result = -1;
        return false;
    }
    if (IsCtarSentinel(run.header))
        return false;
    if (!ReadCtarSize(run.header, size)) {
        LogMessageTo(stderr, "%sbad file size at offset 0x%llX\n", FailureHead().c_str(), offset);
        run.result = -1;
        return false;
    }
    return true;
}

// The parts of an entry that the include file names. The two special objects are never asked about.
StringList IncludedParts(const std::string& name) {
    std::FILE* const include = RunSettings.include.get();
    if (include == nullptr || name == ConfigurationPath || name == SecurityDataPath)
        return {{name, std::nullopt}};
    StringList parts;
    if (MatchPathFile(name, &parts, include) >= 1 && RunSettings.verbosity >= 1)
        LogMessageTo(stderr, "%s: %s: not included\n", ProgramName, name.c_str());
    return parts;
}

bool IsExcluded(const StringPair& part) {
    if (MatchPathFile(part.first, nullptr, RunSettings.exclude.get()) != 0)
        return false;
    if (RunSettings.verbosity >= 1)
        LogMessageTo(stderr, "%s: %s: excluded\n", ProgramName, part.first.c_str());
    return true;
}

// Takes out what the exclude file names: the second part and those behind it, and the first at last.
void RemoveExcluded(StringList& parts) {
    if (parts.empty())
        return;
    for (auto part = std::next(parts.begin()); part != parts.end();)
        part = IsExcluded(*part) ? parts.erase(part) : std::next(part);
    if (IsExcluded(parts.front()))
        parts.pop_front();
}

constexpr const char* UnitNames[] = {"", "K", "M", "G"};

// "Name: seconds s rate", for one phase of an entry.
void ReportPhase(const char* name, double seconds, std::int64_t size) {
    if (seconds <= 0)
        return;
    const ScaledAmount rate = ScaleDecimal(static_cast<double>(size) / seconds);
    LogMessage("%s: %7.3f s %.3f %sB/s\n", name, seconds, rate.value, UnitNames[rate.unit]);
}

// Restores what is wanted of an entry. Gives 0, or -1 after a message.
int RestoreWanted(RestoreRun& run, RestoreRequest& request, ArchiveReader& reader) {
    const RestoreMember& member = RestoreMemberFor(request.name);
    RestoreTimes times;
    if (WaitsForDisk(reader.descriptor))
        reader.ahead.Begin(reader.descriptor, RoundToBlocks(reader.size));
    if (RestoreObject(member, run.session, request, &times, ArchiveReadCallback, &reader) != 0) {
        LogMessageTo(stderr, "%s%s\n", FailureHead().c_str(), member.failure);
        return -1;
    }
    if (member.profiles)
        ++run.restored_profiles;
    if (RunSettings.verbosity >= 2) {
        ReportPhase("Transfer ", times.transfer, reader.size);
        ReportPhase("Restore  ", times.restore, reader.size);
    }
    return 0;
}

// Passes over what a failed entry has left of its data. False when the run over the archive cannot go on.
bool PassFailedEntry(RestoreRun& run, std::int64_t left) {
    run.result = -1;
    LogMessageTo(stderr, "%sfailed to restore object at offset 0x%llX\n", FailureHead().c_str(),
                 static_cast<unsigned long long>(run.offset));
    if (SkipArchiveData(run.archive, left) == 0)
        return true;
    LogMessageTo(stderr, "%scouldn't skip the rest of the failed object's 0x%llX bytes\n", FailureHead().c_str(),
                 Printable(left));
    return false;
}

// Reads one header and deals with its entry. False when the run over the archive ends here.
bool TakeEntry(RestoreRun& run) {
    if (TerminationRequested != 0)
        return false; // a pipe may keep the next header back for ever
    run.header.fill('\0');
    run.header_read = ReadArchive(run.archive, run.header.data(), run.header.size());
    run.header_error = errno;
    ArchiveReader reader{run.archive, 0, 0, 0};
    if (!BeginsEntry(run, reader.size))
        return false;
    reader.left = reader.size;
    RestoreRequest request{std::string(CutNameSuffix(ReadCtarName(run.header))), {}};
    LogMessage("Archive  : %s\n", request.name.c_str());
    request.objects = IncludedParts(request.name);
    if (RunSettings.exclude)
        RemoveExcluded(request.objects);
    const bool done = request.objects.empty() ? SkipArchiveData(run.archive, reader.size) == 0
                                              : RestoreWanted(run, request, reader) == 0;
    if (done)
        run.result = 0;
    else if (!PassFailedEntry(run, reader.left))
        return false;
    run.offset += BlockSize + static_cast<std::uint64_t>(RoundToBlocks(reader.size));
    return true;
}

void ReportRestore(std::int64_t bytes, double seconds) {
    const auto amount = static_cast<double>(bytes);
    const ScaledAmount total = ScaleDecimal(amount);
    LogMessage("Restored %.3f %sBs in %f seconds\n", total.value, UnitNames[total.unit], seconds);
    if (seconds > 0) {
        const ScaledAmount rate = ScaleDecimal(amount / seconds);
        LogMessage("%.3f %sB/s\n", rate.value, UnitNames[rate.unit]);
    }
}

} // namespace

int RestoreArchive(FtpSession* session) {
    Descriptor archive = OpenArchive();
    if (!archive.IsOpen()) {
        LogMessageTo(stderr, "%sopen(%s): %s\n", FailureHead().c_str(), ArchivePath(), std::strerror(errno));
        return -1;
    }
    const double begun = SecondsNow();
    RestoreRun run;
    run.session = session;
    run.archive = archive.Get();
    while (TakeEntry(run)) {
    }
    if (run.header_read < 0) {
        LogMessageTo(stderr, "%sread(%s, 0x%llX, %d): %s\n", FailureHead().c_str(), ArchivePath(),
                     static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(run.header.data())),
                     static_cast<int>(BlockSize), std::strerror(run.header_error));
        run.result = -1;
    }
    archive.Reset();
    if (run.restored_profiles > 0) {
        const int restored = RestoreAuthority(session);
        if (restored != 0) {
            LogMessageTo(stderr, "%sfailed to restore authority\n", FailureHead().c_str());
            run.result = run.result != 0 ? -1 : restored;
        }
    }
    if (TerminationRequested != 0) {
        LogMessageTo(stderr, "%sRestore Terminated Cleanly\n", FailureHead().c_str());
        std::exit(143);
    }
    if (run.result != 0)
        return run.result;
    ReportRestore(static_cast<std::int64_t>(run.offset), SecondsNow() - begun);
    return 0;
}
