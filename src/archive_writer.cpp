#include "archive_writer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "text.h"

namespace {

constexpr int BlockBytes = static_cast<int>(BlockSize);

void Append(ArchiveFailures& failures, const ArchiveFailures& further) {
    failures.insert(failures.end(), further.begin(), further.end());
}

} // namespace

std::string DescribeFailure(const ArchiveFailure& failure) {
    const char* const reason = std::strerror(failure.error);
    switch (failure.step) {
    case ArchiveStep::Write:
        return FormatText("write(): %s", reason);
    case ArchiveStep::ShortWrite:
        return FormatText("write(,, %d) = %d", failure.wanted, failure.written);
    case ArchiveStep::BulkWrite:
        return FormatText("write(, 0x%llX, %d): %s",
                          static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(failure.from)),
                          failure.written, reason);
    case ArchiveStep::Seek:
        return FormatText("lseek(): %s", reason);
    case ArchiveStep::Cut:
        return FormatText("ftruncate64(): %s", reason);
    case ArchiveStep::Sentinel:
        return FormatText("CTAR sentinel failed write(): %s", reason);
    case ArchiveStep::Header:
        return FormatText("CTAR header failed to update: %s", reason);
    }
    return {};
}

bool LosesEntry(const ArchiveFailures& failures) {
    return std::any_of(failures.begin(), failures.end(), [](const ArchiveFailure& failure) {
        return failure.step != ArchiveStep::Seek && failure.step != ArchiveStep::Cut;
    });
}

// The file as a whole

void OpenArchive(ArchiveFile& file, const std::string& path) {
    file.descriptor.Reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const int descriptor = file.descriptor.Get();
    struct stat status;
    const bool locked = descriptor >= 0 && ::flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (locked || (descriptor >= 0 && ::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode) &&
                   ::ftruncate(descriptor, 0) != 0))
        file.descriptor.Reset();
}

ArchiveFailures BeginArchive(ArchiveFile& file) {
    const CtarBlock sentinel = BuildCtarSentinel();
    const ssize_t written = ::write(file.descriptor.Get(), sentinel.data(), sentinel.size());
    if (written == BlockBytes)
        return {};
    ArchiveFailures failures{{ArchiveStep::Sentinel, errno}};
    if (written > 0)
        Append(failures, CutBack(file, 0));
    return failures;
}

ArchiveFailures CutBack(ArchiveFile& file, off_t offset) {
    if (::lseek(file.descriptor.Get(), offset, SEEK_SET) != offset)
        return {{ArchiveStep::Seek, errno}};
    if (::ftruncate(file.descriptor.Get(), offset) != 0)
        return {{ArchiveStep::Cut, errno}};
    return {};
}

int FlushArchive(const ArchiveFile& file) {
    return ::fdatasync(file.descriptor.Get()) == 0 || errno == EINVAL ? 0 : errno;
}

// The data of an entry

namespace {

// A disk that fills up may take part of a block. That part is cut off again, so that the archive keeps its block grid
// and a retry writes the same place.
ArchiveFailures CutPart(ArchiveFile& file, ssize_t part, int wanted, ssize_t written) {
    ArchiveFailures failures{{ArchiveStep::ShortWrite, 0, wanted, static_cast<int>(written)}};
    Append(failures, CutBack(file, ::lseek(file.descriptor.Get(), -part, SEEK_CUR)));
    return failures;
}

// Writes the gathered block. After a failure the position is where it was.
ArchiveFailures WriteGathered(ArchiveWriter& writer) {
    const ssize_t written = ::write(writer.file.descriptor.Get(), writer.block.data(), writer.block.size());
    if (written < 0)
        return {{ArchiveStep::Write, errno}};
    return written == BlockBytes ? ArchiveFailures{} : CutPart(writer.file, written, BlockBytes, written);
}

// Moves bytes into the gathered block and writes it once it is full.
ArchiveFailures FillBlock(ArchiveWriter& writer, const char*& data, int& count) {
    const int moved = std::min(count, BlockBytes - writer.pending);
    std::copy_n(data, moved, writer.block.data() + writer.pending);
    data += moved;
    count -= moved;
    writer.pending += moved;
    if (writer.pending < BlockBytes)
        return {};
    ArchiveFailures failures = WriteGathered(writer);
    if (failures.empty()) {
        writer.bytes += BlockBytes;
        writer.pending = 0;
    }
    return failures;
}

// Writes as many whole blocks of the data as one call accepts, and moves past them.
ArchiveFailures WriteBulk(ArchiveWriter& writer, const char*& data, int& count) {
    const int wanted = count / BlockBytes * BlockBytes;
    const ssize_t written = ::write(writer.file.descriptor.Get(), data, static_cast<std::size_t>(wanted));
    if (written < 0)
        return {{ArchiveStep::BulkWrite, errno, wanted, static_cast<int>(written), data}};
    const ssize_t part = written % BlockBytes;
    const int kept = static_cast<int>(written - part);
    data += kept;
    count -= kept;
    writer.bytes += kept;
    return part == 0 ? ArchiveFailures{} : CutPart(writer.file, part, wanted, written);
}

} // namespace

off_t BeginEntry(ArchiveWriter& writer) {
    return ::lseek(writer.file.descriptor.Get(), 0, SEEK_END);
}

ArchiveFailures AppendData(ArchiveWriter& writer, const char* data, int& count) {
    ArchiveFailures failures;
    if (writer.pending > 0 && count > 0)
        failures = FillBlock(writer, data, count);
    if (!failures.empty())
        return failures;
    while (count >= BlockBytes) {
        const int before = count;
        Append(failures, WriteBulk(writer, data, count));
        if (count == before)
            return failures;
    }
    if (count > 0)
        Append(failures, FillBlock(writer, data, count));
    return failures;
}

// Closing an entry

namespace {

// Pads the gathered block, if there is one, and counts its data bytes.
ArchiveFailures PadEntry(ArchiveWriter& writer, off_t start) {
    if (writer.pending == 0)
        return {};
    std::fill(writer.block.begin() + writer.pending, writer.block.end(), '\0');
    ArchiveFailures failures = WriteGathered(writer);
    if (!failures.empty())
        Append(failures, CutBack(writer.file, start));
    writer.bytes += writer.pending;
    return failures;
}

// Writes one block of the format itself, in as many calls as that takes.
ArchiveFailures PutBlock(ArchiveFile& file, ArchiveStep step, const CtarBlock& block, off_t start) {
    if (WriteAll(file.descriptor.Get(), block.data(), block.size()))
        return {};
    ArchiveFailures failures{{step, errno}};
    Append(failures, CutBack(file, start));
    return failures;
}

// Writes the header over the old sentinel, whose offset is below 0 in an archive that lacks its first one.
ArchiveFailures PutHeader(ArchiveFile& file, const CtarBlock& header, off_t start) {
    if (::lseek(file.descriptor.Get(), start - static_cast<off_t>(BlockSize), SEEK_SET) >= 0)
        return PutBlock(file, ArchiveStep::Header, header, start);
    ArchiveFailures failures{{ArchiveStep::Header, errno}};
    Append(failures, CutBack(file, start));
    return failures;
}

} // namespace

ArchiveFailures CloseEntry(ArchiveWriter& writer, off_t start,
                           const std::function<CtarBlock(std::int64_t size)>& build_header) {
    ArchiveFailures failures = PadEntry(writer, start);
    if (writer.bytes <= 0) {
        Append(failures, CutBack(writer.file, start));
        return failures;
    }
    Append(failures, PutBlock(writer.file, ArchiveStep::Sentinel, BuildCtarSentinel(), start));
    Append(failures, PutHeader(writer.file, build_header(writer.bytes), start));
    return failures;
}
