#include "archive_reader.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
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

const char* DescribeBlock(BlockKind kind) {
    switch (kind) {
    case BlockKind::Nothing:
        return "the archive ends without a sentinel";
    case BlockKind::Part:
        return "the archive ends inside a block";
    case BlockKind::BadChecksum:
        return "neither a header nor the sentinel: bad checksum";
    default:
        return "a header with an unreadable size";
    }
}

// Opening and reading

namespace {

constexpr std::int64_t PageSize = 4096;                         // direct reads from a page boundary on are the fastest
constexpr std::int64_t ForwardedAtOnce = std::int64_t{1} << 20; // bytes

// Whether the kernel tells this process what the page cache has of the file; it answers others with everything.
bool MayAskCache(const struct stat& status, const char* path) {
    return status.st_uid == ::geteuid() || ::faccessat(AT_FDCWD, path, W_OK, AT_EACCESS) == 0;
}

// Whether sendfile() failed because of the socket, and not because the file cannot be read there or cannot be sent this
// way. Keeps errno.
bool IsSocketFault(int file, std::int64_t offset) {
    static constexpr int Faults[] = {EAGAIN, EINTR, EPIPE, ECONNRESET, ETIMEDOUT, EHOSTUNREACH, ENETUNREACH, ENETDOWN};
    const int error = errno;
    char byte;
    const bool is_readable = ::pread(file, &byte, 1, offset) == 1;
    errno = error;
    return is_readable && std::ranges::find(Faults, error) != std::end(Faults);
}

} // namespace

// A named pipe must not be opened twice, so direct I/O is switched on afterwards, for what has it.
bool ArchiveReader::Open(const std::string& path) {
    if (path == "-") {
        descriptor_.Reset(STDIN_FILENO);
        return true;
    }
    descriptor_.Reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status;
    if (!descriptor_.IsOpen() || ::fstat(descriptor_.Get(), &status) != 0 ||
        !(S_ISREG(status.st_mode) || S_ISBLK(status.st_mode)))
        return descriptor_.IsOpen();
    has_offset_ = true;
    struct statfs system;
    const bool is_in_memory = ::fstatfs(descriptor_.Get(), &system) == 0 && system.f_type == TMPFS_MAGIC;
    is_direct_ = !is_in_memory && ::fcntl(descriptor_.Get(), F_SETFL, O_RDONLY | O_DIRECT) == 0;
    if (is_direct_ && MayAskCache(status, path.c_str()))
        cached_.Reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat again {};
    if (cached_.IsOpen() && (::fstat(cached_.Get(), &again) != 0 || again.st_ino != status.st_ino ||
                             again.st_dev != status.st_dev)) // renamed meanwhile
        cached_.Reset();
    return true;
}

// Continues without direct I/O; false when it was off already.
bool ArchiveReader::StopDirectReads() {
    cached_.Reset();
    const int flags = ::fcntl(descriptor_.Get(), F_GETFL);
    return std::exchange(is_direct_, false) && ::fcntl(descriptor_.Get(), F_SETFL, flags & ~O_DIRECT) == 0;
}

// How many bytes from the offset on the page cache has, at most `length` (which is at most ForwardedAtOnce). Asks
// without reading: a read with RWF_NOWAIT would have the kernel read ahead into the cache.
std::int64_t ArchiveReader::CountCached(std::int64_t length) {
    if (!cached_.IsOpen() || offset_ > INT64_MAX - length)
        return 0;
    const std::int64_t page = ::getpagesize();
    const std::int64_t before = offset_ % page;
    const auto asked = static_cast<std::size_t>(before + length);
    void* const window = ::mmap(nullptr, asked, PROT_READ, MAP_SHARED, cached_.Get(), offset_ - before);
    std::array<unsigned char, ForwardedAtOnce / 4096 + 1> resident{};
    const bool is_told = window != MAP_FAILED && ::mincore(window, asked, resident.data()) == 0;
    if (window != MAP_FAILED)
        ::munmap(window, asked);
    if (!is_told) { // no system or file system that can tell
        cached_.Reset();
        return 0;
    }
    const auto missing = std::ranges::find(resident, 0, [](unsigned char flags) { return flags & 1; });
    return std::clamp((missing - resident.begin()) * page - before, std::int64_t{0}, length);
}

// Whole blocks at the offset, as far as the page cache has them.
ssize_t ArchiveReader::ReadFromCache(char* buffer, std::size_t length) {
    constexpr auto block = static_cast<std::int64_t>(BlockSize);
    const std::int64_t cached = CountCached(static_cast<std::int64_t>(length)) / block * block;
    return cached == 0 ? 0 : ::pread(cached_.Get(), buffer, static_cast<std::size_t>(cached), offset_) / block * block;
}

// One read, moving the offset.
ssize_t ArchiveReader::ReadSomeAt(char* buffer, std::size_t length) {
    if (!has_offset_)
        return ReadSome(descriptor_.Get(), buffer, length);
    ssize_t count = ReadFromCache(buffer, length);
    if (count == 0)
        do
            count = ::pread(descriptor_.Get(), buffer, length, offset_);
        while (count < 0 && (errno == EINTR || (errno == EINVAL && StopDirectReads())));
    offset_ += std::max<ssize_t>(count, 0);
    return count;
}

ssize_t ArchiveReader::Read(char* buffer, std::size_t length) {
    std::size_t held = 0;
    while (held < length) {
        const ssize_t count = ReadSomeAt(buffer + held, length - held);
        if (count < 0 && held == 0)
            return -1;
        if (count <= 0)
            break;
        held += static_cast<std::size_t>(count);
    }
    return static_cast<ssize_t>(held);
}

// The data of an entry

void ArchiveReader::BeginEntry(std::int64_t size) {
    left_ = size;
    ahead_.End();
}

// `count` bytes and what follows them in their last block.
std::int64_t ArchiveReader::ToBlockEnd(std::int64_t count) const {
    const std::int64_t before = offset_ % static_cast<std::int64_t>(BlockSize);
    return RoundToBlocks(before + count) - before;
}

// An entry's data begins a block into a page: a short first read brings the others onto page boundaries.
std::size_t ArchiveReader::WantedBytes(std::size_t room) const {
    const std::int64_t most = static_cast<std::int64_t>(room) - offset_ % PageSize;
    return static_cast<std::size_t>(ToBlockEnd(std::min(left_, most)));
}

// The next bytes of a large entry: from the cache, or from the thread that reads ahead. Empty when neither has them.
std::string_view ArchiveReader::ReadAheadOf(std::span<char> room) {
    std::int64_t end;
    if (!ahead_.IsActive()) {
        if (!is_direct_ || left_ < ReadAhead::PieceSize || offset_ % PageSize != 0 ||
            __builtin_add_overflow(offset_, RoundToBlocks(left_), &end))
            return {};
        const ssize_t count = ReadFromCache(room.data(), room.size());
        if (count > 0)
            return {room.data(), static_cast<std::size_t>(count)};
        ahead_.Begin(descriptor_.Get(), offset_, end);
    }
    return ahead_.Next(room.size());
}

bool ArchiveReader::ReadData(std::span<char> room, std::string_view& data) {
    data = {};
    if (left_ <= 0)
        return true;
    room = room.first(WantedBytes(room.size()));
    data = ReadAheadOf(room);
    offset_ += static_cast<std::int64_t>(data.size());
    if (data.empty()) {
        const ssize_t count = Read(room.data(), room.size());
        if (count < 0)
            return false;
        data = {room.data(), static_cast<std::size_t>(count)};
    }
    const auto left = static_cast<std::size_t>(left_);
    left_ -= static_cast<std::int64_t>(data.size());
    data = data.substr(0, left);
    return true;
}

// A full socket stops sendfile() anywhere. Pieces end with a page, so that reading can continue there, and the rest of
// a block is sent in any case, because direct reads do not begin inside one.
ssize_t ArchiveReader::ForwardData(int socket) {
    if (!has_offset_ || left_ <= 0 || ahead_.IsActive())
        return 0;
    const bool inside_block = offset_ % static_cast<std::int64_t>(BlockSize) != 0;
    const std::int64_t most = (inside_block ? PageSize : ForwardedAtOnce) - offset_ % PageSize;
    std::int64_t length = std::min(left_, most);
    if (is_direct_ && !inside_block)
        length = CountCached(length);
    if (length == 0)
        return 0;
    const int file = is_direct_ ? cached_.Get() : descriptor_.Get();
    const ssize_t count = SendFile(socket, file, offset_, static_cast<std::size_t>(length));
    if (count < 0)
        return IsSocketFault(file, offset_) ? -1 : 0;
    offset_ += count;
    left_ -= count;
    if (left_ == 0)
        offset_ += ToBlockEnd(0);
    return count;
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
bool ReadOver(ArchiveReader& archive, std::int64_t count, std::vector<SkipFailure>& failures) {
    const int page = ::getpagesize();
    Mapping scratch; // suits direct I/O
    if (!scratch.Map(static_cast<std::size_t>(page))) {
        failures.push_back({SkipStep::Map, errno, page});
        return false;
    }
    while (count > 0) {
        const std::int64_t length = std::min<std::int64_t>(page, count);
        const ssize_t read = archive.Read(scratch.Data(), static_cast<std::size_t>(length));
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

bool ArchiveReader::Skip(std::int64_t count, std::vector<SkipFailure>& failures) {
    ahead_.End();
    const std::int64_t length = ToBlockEnd(count);
    std::int64_t target;
    errno = EINVAL; // as lseek() has it for an offset that no file can have
    if (has_offset_ && !__builtin_add_overflow(offset_, length, &target) &&
        ::lseek(descriptor_.Get(), target, SEEK_SET) == target) {
        offset_ = target;
        return true;
    }
    if (!has_offset_ && ::lseek(descriptor_.Get(), length, SEEK_CUR) >= 0)
        return true;
    if (errno != ESPIPE)
        failures.push_back({SkipStep::Seek, errno, length});
    return ReadOver(*this, length, failures);
}
