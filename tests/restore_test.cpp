#include "restore.h"

#include <csignal>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tcp.h"
#include "test_support.h"

namespace {

// Bytes of which no two blocks are the same.
std::string Bytes(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i ^ i / 509);
    return bytes;
}

enum class From { File, Cache, PartlyCache, Disk, Pipe };

// A connection whose reader is slow: what is sent stops between segments, at any byte of a block.
struct SlowReader {
    Descriptor in, out;
    std::string bytes;

    SlowReader() : out(OpenSocket(0)) {
        const Listener listener;
        EXPECT_EQ(ConnectSocket(out, listener.Address()), 0);
        in = listener.Accept();
        EXPECT_EQ(::fcntl(in.Get(), F_SETFL, O_NONBLOCK) | ::fcntl(out.Get(), F_SETFL, O_NONBLOCK), 0);
    }
    // Returns false at the end of the data.
    bool Drain() {
        char piece[70001];
        const ssize_t count = ::recv(in.Get(), piece, sizeof piece, 0);
        bytes.append(piece, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        return count != 0;
    }
};

// What is forwarded until the next data have to be supplied.
std::string Forwarded(RestoredArchive& archive) {
    SlowReader reader;
    for (ssize_t count = 0; (count = ForwardEntryData(&archive, reader.out.Get())) != 0; reader.Drain())
        EXPECT_TRUE(count > 0 || errno == EAGAIN) << std::strerror(errno);
    reader.out.Reset();
    while (reader.Drain()) {
    }
    return reader.bytes;
}

// Skips in an archive; "ok", or what failed.
std::string Skipped(ArchiveReader& archive, std::int64_t count) {
    std::vector<SkipFailure> failures;
    std::string said = archive.Skip(count, failures) ? "ok" : "failed";
    for (const SkipFailure& failure : failures)
        said += "; " + DescribeFailure(failure);
    return said;
}

// Feeds the entry of `size` bytes that begins in the archive at `start`, with or without forwarding. Nothing is left in
// the page cache for Disk, and the first part for PartlyCache.
std::string Fed(const std::string& bytes, std::size_t start, std::int64_t size, From from, bool forwards,
                std::int64_t& left) {
    const TempDir temp;
    const std::string path = from == From::Pipe ? temp / "pipe" : temp / "file";
    std::thread feeder;
    if (from == From::Pipe) {
        EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0);
        feeder = std::thread([&] {
            const Descriptor out(::open(path.c_str(), O_WRONLY));
            for (std::size_t at = 0; at < bytes.size(); at += 700) // pieces that are no blocks
                EXPECT_GT(::write(out.Get(), bytes.data() + at, std::min<std::size_t>(700, bytes.size() - at)), 0);
        });
    } else {
        WriteFile(path, bytes);
        const Descriptor file(::open(path.c_str(), O_RDONLY));
        EXPECT_EQ(::fsync(file.Get()), 0);
        const off_t kept = from == From::Disk ? 0 : from == From::PartlyCache ? 3 << 20 : 1 << 30; // bytes
        EXPECT_EQ(::posix_fadvise(file.Get(), kept, 0, POSIX_FADV_DONTNEED), 0);
    }
    ::setenv("VONDRAL_TEST_DISK", from == From::File ? "plain:" : "", 1);
    RestoredArchive archive{{}, "the archive"};
    EXPECT_TRUE(archive.reader.Open(path));
    std::string fed;
    Mapping buffer;
    EXPECT_TRUE(buffer.Map(TransferCapacity));
    EXPECT_EQ(Skipped(archive.reader, static_cast<std::int64_t>(start)), "ok");
    archive.reader.BeginEntry(size);
    int supplied = 0; // blocks
    for (std::string_view data;; ++supplied) {
        EXPECT_EQ(SupplyEntryData(&archive, {buffer.Data(), TransferCapacity}, data), 0);
        if (data.empty())
            break;
        EXPECT_LE(data.size(), TransferCapacity);
        fed.append(data);
        if (forwards)
            fed += Forwarded(archive);
    }
    EXPECT_TRUE(supplied <= 1 || from != From::Cache || !forwards) << supplied << ": what is cached was copied";
    left = archive.reader.Left();
    // The position is after the padding.
    const std::size_t next = start + static_cast<std::size_t>(RoundToBlocks(size));
    if (next + 512 <= bytes.size()) {
        EXPECT_EQ(archive.reader.Read(buffer.Data(), 512), 512);
        EXPECT_EQ(std::string(buffer.Data(), 512), bytes.substr(next, 512));
    }
    if (feeder.joinable())
        feeder.join();
    ::unsetenv("VONDRAL_TEST_DISK");
    return fed;
}

TEST(ArchiveReader, DeliversTheDataAndConsumesThePadding) {
    for (const From from : {From::File, From::Cache, From::PartlyCache, From::Disk, From::Pipe})
        for (const bool forwards : {false, true}) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(from) << ' ' << forwards);
            std::int64_t left = 0;
            for (const std::size_t size : {1, 511, 512, 513, 65024, 65535, 65536, 65537, 200000, 1 << 20, 5000000}) {
                const std::string data = Bytes(size);
                const std::size_t padded = (size + 511) / 512 * 512;
                const std::string archive =
                    std::string(512, 'h') + data + std::string(padded - size, '\0') + std::string(512, 'n');
                EXPECT_TRUE(Fed(archive, 512, static_cast<std::int64_t>(size), from, forwards, left) == data) << size;
                EXPECT_LE(left, 0);
            }
            for (const std::size_t cut : {7, 65536, 70000, 3000000}) { // an archive that ends early
                EXPECT_TRUE(Fed(Bytes(cut), 0, 9000000, from, forwards, left) == Bytes(cut)) << cut;
                EXPECT_EQ(left, 9000000 - static_cast<std::int64_t>(cut));
            }
            EXPECT_EQ(Fed("data", 0, 0, from, forwards, left), "");
        }
}

// A restore that fails leaves an entry at any point; the thread may be waiting for room, or still reading.
TEST(ReadAhead, EndsWheneverItsReaderDoes) {
    constexpr std::size_t size = 6 << 20;
    const std::string bytes = Bytes(size);
    const TempDir temp;
    WriteFile(temp / "file", bytes);
    const Descriptor file(::open((temp / "file").c_str(), O_RDONLY));
    ReadAhead ahead;
    for (const std::size_t deliveries : {0, 1, 16, 17, 40, 96}) {
        ahead.Begin(file.Get(), 0, size);
        for (std::size_t i = 0; i < deliveries; ++i)
            ASSERT_TRUE(ahead.Next(TransferCapacity) == bytes.substr(i * TransferCapacity, TransferCapacity)) << i;
        if (deliveries % 2 == 0)
            ::usleep(2000);
        ahead.End();
        EXPECT_FALSE(ahead.IsActive());
    }
}

TEST(ArchiveReader, FailedReadsAreReported) {
    RestoredArchive archive{{}, "the archive"};
    EXPECT_TRUE(archive.reader.Open("/")); // a directory opens, and cannot be read
    archive.reader.BeginEntry(10);
    char block[512];
    std::string_view data;
    Capture capture;
    EXPECT_EQ(SupplyEntryData(&archive, block, data), -1);
    EXPECT_EQ(SupplyEntryData(nullptr, block, data), -1);
    EXPECT_EQ(capture.Take(), "vondral[restore.cpp]: read(the archive,, 512): Is a directory\n"
                              "vondral[restore.cpp]: bad argument\n");
}

// Only a fault of the socket ends an upload, and never with a signal; what cannot be forwarded is read.
TEST(ArchiveReader, ForwardingFailsForTheSocketOnly) {
    std::signal(SIGPIPE, SIG_DFL);
    constexpr std::int64_t size = 4 << 20;
    const TempDir temp;
    WriteFile(temp / "archive", std::string(size, 'x'));
    RestoredArchive archive{{}, "the archive"};
    ::setenv("VONDRAL_TEST_DISK", "refused:", 1); // whether the data are cached makes no difference then
    ASSERT_TRUE(archive.reader.Open(temp / "archive"));
    ::unsetenv("VONDRAL_TEST_DISK");
    archive.reader.BeginEntry(size);
    const Descriptor no_target(::open((temp / "archive").c_str(), O_WRONLY | O_APPEND));
    EXPECT_EQ(ForwardEntryData(&archive, no_target.Get()), 0);
    SlowReader gone; // which the first segments find out
    gone.in.Reset();
    ssize_t count;
    while ((count = ForwardEntryData(&archive, gone.out.Get())) > 0) {
    }
    EXPECT_EQ(count, -1);
    EXPECT_THAT(errno, testing::AnyOf(EPIPE, ECONNRESET));
    EXPECT_EQ(Skipped(archive.reader, archive.reader.Left() - 600), "ok");
    archive.reader.BeginEntry(100000); // more than there is
    for (const ssize_t expected : {512, 0})
        EXPECT_EQ(ForwardEntryData(&archive, SlowReader().out.Get()), expected);
}

TEST(ArchiveReader, SkipsBySeekingOrReading) {
    const TempDir temp;
    WriteFile(temp / "a", std::string(1024, 'x') + std::string(512, 'y'));
    ArchiveReader file;
    ASSERT_TRUE(file.Open(temp / "a"));
    alignas(512) char block[512];
    EXPECT_EQ(Skipped(file, 513), "ok");
    EXPECT_EQ(Skipped(file, -200), "ok"); // what an upload took too much is no step back
    EXPECT_EQ(file.Read(block, 512), 512);
    EXPECT_EQ(block[0], 'y');
    EXPECT_EQ(Skipped(file, LargestSize), "failed; lseek64(, 0x7FFFFFFFFFFFFC00,, SEEK_CUR): Invalid argument; "
                                          "didn't finish consuming 0x7FFFFFFFFFFFFC00 bytes");

    ASSERT_EQ(::mkfifo((temp / "p").c_str(), 0600), 0);
    std::thread feeder([&] { WriteFile(temp / "p", std::string(10240, 'x') + "y12345"); });
    ArchiveReader pipe;
    ASSERT_TRUE(pipe.Open(temp / "p"));
    EXPECT_EQ(Skipped(pipe, 10000), "ok"); // 10240 with padding
    EXPECT_EQ(Skipped(pipe, 1024), "failed; didn't finish consuming 0x3FA bytes");
    feeder.join();
}

} // namespace
