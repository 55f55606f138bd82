#include "archive_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <linux/magic.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include "text.h"

BlockKind ClassifyBlock(std::span<const char, BlockSize> block, std::size_t held, std::int64_t& size) {
    if (held < BlockSize)
        return held == 0 ? BlockKind::Nothing : BlockKind::Part;
    if (!HasGoodChecksum(block))
        return BlockKind::BadChecksum;
    if (IsCtarSentinel(block))
        return BlockKind::Sentinel;
    return ReadCtarSize(block, size) ? BlockKind::Header : BlockKind::BadSize;
}

// A named pipe must not be opened twice, so direct I/O is switched on afterwards, for what has it.
Descriptor OpenArchiveForReading(const std::string& path) {
    if (path == "-")
        return Descriptor(STDIN_FILENO);
    Descriptor archive(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status;
    if (archive.IsOpen() && ::fstat(archive.Get(), &status) == 0 &&
        (S_ISREG(status.st_mode) || S_ISBLK(status.st_mode)))
        ::fcntl(archive.Get(), F_SETFL, O_RDONLY | O_DIRECT);
    return archive;
}

namespace {

bool IsReadDirectly(int descriptor) {
    const int flags = ::fcntl(descriptor, F_GETFL);
    return flags >= 0 && (flags & O_DIRECT) != 0;
}

// Whether reads wait for a disk: direct reads do, but for those of files that are in memory anyway.
bool WaitsForDisk(int descriptor) {
    struct statfs system;
    return IsReadDirectly(descriptor) && (::fstatfs(descriptor, &system) != 0 || system.f_type != TMPFS_MAGIC);
}

// Continues without direct I/O; false when it was off already.
bool StopDirectReads(int descriptor) {
    return IsReadDirectly(descriptor) && ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) & ~O_DIRECT) == 0;
}

} // namespace

ssize_t ReadArchive(int descriptor, char* buffer, std::size_t length) {
    std::size_t held = 0;
    while (held < length) {
        const ssize_t count = ReadSome(descriptor, buffer + held, length - held);
        if (count < 0 && errno == EINVAL && StopDirectReads(descriptor))
            continue;
        if (count < 0 && held == 0)
            return -1;
        if (count <= 0)
            break;
        held += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(held);
}

// The data of an entry

void BeginEntryData(EntryReader& reader, int descriptor, std::int64_t size) {
    reader.descriptor = descriptor;
    reader.size = reader.left = size;
}

void ReadEntryAhead(EntryReader& reader) {
    if (WaitsForDisk(reader.descriptor))
        reader.ahead.Begin(reader.descriptor, RoundToBlocks(reader.size));
}

std::int64_t WantedBytes(const EntryReader& reader, int count) {
    return RoundToBlocks(std::min<std::int64_t>(reader.left, count));
}

ssize_t ReadEntryData(EntryReader& reader, char* buffer, int count) {
    if (reader.left <= 0)
        return 0;
    const auto length = static_cast<std::size_t>(WantedBytes(reader, count));
    ssize_t read = static_cast<ssize_t>(length);
    if (!reader.ahead.Deliver(buffer, length))
        read = ReadArchive(reader.descriptor, buffer, length);
    if (read < 0)
        return -1;
    const std::int64_t delivered = std::min<std::int64_t>(read, reader.left);
    reader.left -= read;
    return static_cast<ssize_t>(delivered);
}

// Skipping

std::string DescribeFailure(const SkipFailure& failure) {
    const char* const reason = std::strerror(failure.error);
    const auto bytes = static_cast<unsigned long long>(failure.bytes);
    switch (failure.step) {
    case SkipStep::Seek:
        return FormatText("lseek64(, 0x%llX,, SEEK_CUR): %s", bytes, reason);
    case SkipStep::Map:
        return FormatText("mmap(, %d,, MAP_ANONYMOUS): %s", static_cast<int>(failure.bytes), reason);
    case SkipStep::Read:
        return FormatText("read(list, %d): %s", static_cast<int>(failure.bytes), reason);
    case SkipStep::End:
        return FormatText("didn't finish consuming 0x%llX bytes", bytes);
    }
    return {};
}

namespace {

// Reads `count` bytes, whole blocks, one page at a time, and drops them.
bool ReadOver(int descriptor, std::int64_t count, std::vector<SkipFailure>& failures) {
    const int page = ::getpagesize();
    Mapping scratch; // suits direct I/O
    if (!scratch.Map(static_cast<std::size_t>(page))) {
        failures.push_back({SkipStep::Map, errno, page});
        return false;
    }
    while (count > 0) {
        const std::int64_t length = std::min<std::int64_t>(page, count);
        const ssize_t read = ReadArchive(descriptor, scratch.Data(), static_cast<std::size_t>(length));
        if (read < 0)
            failures.push_back({SkipStep::Read, errno, length});
        if (read <= 0) {
            failures.push_back({SkipStep::End, 0, count});
            return false;
        }
        count -= read;
    }
    return true;
}

} // namespace

bool SkipArchive(int descriptor, std::int64_t count, std::vector<SkipFailure>& failures) {
    const std::int64_t length = RoundToBlocks(count);
    errno = 0;
    if (::lseek(descriptor, length, SEEK_CUR) >= 0 || errno == 0)
        return true;
    if (errno != ESPIPE)
        failures.push_back({SkipStep::Seek, errno, length});
    return ReadOver(descriptor, length, failures);
}
