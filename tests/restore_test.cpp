#include "restore.h"

#include <cstring>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include "test_support.h"

namespace {

// Bytes of which no two blocks are the same.
std::string Bytes(std::size_t size) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i ^ i / 509);
    return bytes;
}

enum class From { File, FileAhead, Pipe };

// Feeds an entry of `size` bytes from an archive that begins with its data. The position of a file is behind what was
// fed, padding included.
std::string Fed(const std::string& archive, std::int64_t size, From from, std::int64_t& left) {
    const TempDir temp;
    WriteFile(temp / "a", archive);
    Descriptor input(::open((temp / "a").c_str(), O_RDONLY));
    std::thread feeder;
    if (from == From::Pipe) {
        int ends[2];
        EXPECT_EQ(::pipe(ends), 0);
        input.Reset(ends[0]);
        feeder = std::thread([&archive, out = ends[1]] {
            const Descriptor owner(out);
            for (std::size_t at = 0; at < archive.size(); at += 700) // pieces that are no blocks
                EXPECT_GT(::write(out, archive.data() + at, std::min<std::size_t>(700, archive.size() - at)), 0);
        });
    }
    RestoredEntry entry{{}, "the archive"};
    BeginEntryData(entry.data, input.Get(), size);
    if (from == From::FileAhead)
        entry.data.ahead.Begin(input.Get(), (size + 511) / 512 * 512);
    std::string fed;
    std::vector<char> buffer(65536);
    for (int count = 65536;; count = 65536) {
        EXPECT_EQ(ArchiveReadCallback(&entry, buffer.data(), &count), 0);
        if (count <= 0)
            break;
        fed.append(buffer.data(), static_cast<std::size_t>(count));
        if (from != From::Pipe) {
            const std::size_t position = std::min((fed.size() + 511) / 512 * 512, archive.size());
            EXPECT_EQ(::lseek(input.Get(), 0, SEEK_CUR), static_cast<off_t>(position));
        }
    }
    if (feeder.joinable())
        feeder.join();
    left = entry.data.left;
    return fed;
}

TEST(ArchiveReader, DeliversTheDataAndTakesThePadding) {
    for (const From from : {From::File, From::FileAhead, From::Pipe}) {
        for (const std::size_t size :
             std::initializer_list<std::size_t>{1, 511, 512, 513, 65535, 65536, 65537, 200000, 1 << 20, 1800000}) {
            const std::string data = Bytes(size);
            const std::size_t padded = (size + 511) / 512 * 512;
            std::int64_t left = 0;
            EXPECT_TRUE(Fed(data + std::string(padded - size, '\0') + "next", static_cast<std::int64_t>(size), from,
                            left) == data);
            EXPECT_EQ(left, static_cast<std::int64_t>(size) - static_cast<std::int64_t>(padded));
        }
        std::int64_t left = 0;
        for (const std::size_t cut :
             std::initializer_list<std::size_t>{7, 65536, 70000, 1000000}) { // an archive that ends early
            EXPECT_TRUE(Fed(Bytes(cut), 2000000, from, left) == Bytes(cut));
            EXPECT_EQ(left, 2000000 - static_cast<std::int64_t>(cut));
        }
        EXPECT_EQ(Fed("data", 0, from, left), "");
    }
}

TEST(ArchiveReader, FailedReadsAreReported) {
    RestoredEntry entry{{}, "the archive"};
    BeginEntryData(entry.data, -1, 10);
    int count = 65536;
    Capture capture;
    EXPECT_EQ(ArchiveReadCallback(&entry, nullptr, &count), -1);
    EXPECT_EQ(capture.Take(), "vondral[restore.cpp]: read(the archive,, 512): Bad file descriptor\n");
}

TEST(ReadAhead, LeavesOddRequestsToTheCaller) {
    const TempDir temp;
    const std::string bytes = Bytes(2 << 20);
    WriteFile(temp / "a", bytes);
    const Descriptor file(::open((temp / "a").c_str(), O_RDONLY));
    std::vector<char> buffer(65536);
    ReadAhead whole;
    EXPECT_FALSE(whole.Deliver(buffer.data(), buffer.size()));
    whole.Begin(file.Get(), 2 << 20);
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(whole.Deliver(buffer.data(), buffer.size()));
    EXPECT_EQ(std::memcmp(buffer.data(), bytes.data() + 19 * 65536, 65536), 0);
    EXPECT_FALSE(whole.Deliver(buffer.data(), 512));
    EXPECT_FALSE(whole.Deliver(buffer.data(), buffer.size())); // it has ended
    EXPECT_EQ(::lseek(file.Get(), 0, SEEK_CUR), 20 * 65536);
    ReadAhead left; // its readers wait for room when it goes
    left.Begin(file.Get(), ReadAhead::Shortest);
    ReadAhead none;
    none.Begin(file.Get(), ReadAhead::Shortest - 1);
    EXPECT_FALSE(none.Deliver(buffer.data(), buffer.size()));
}

// Skips in an archive; "ok", or what failed.
std::string Skipped(int descriptor, std::int64_t count) {
    std::vector<SkipFailure> failures;
    std::string said = SkipArchive(descriptor, count, failures) ? "ok" : "failed";
    for (const SkipFailure& failure : failures)
        said += "; " + DescribeFailure(failure);
    return said;
}

TEST(Skip, SeeksInFilesAndReadsPipes) {
    const TempDir temp;
    WriteFile(temp / "a", std::string(2048, 'x'));
    const Descriptor file(::open((temp / "a").c_str(), O_RDONLY));
    EXPECT_EQ(Skipped(file.Get(), 513), "ok");
    EXPECT_EQ(::lseek(file.Get(), 0, SEEK_CUR), 1024);
    EXPECT_EQ(Skipped(file.Get(), -200), "ok"); // what an upload took too much is no step back
    EXPECT_EQ(::lseek(file.Get(), 0, SEEK_CUR), 1024);

    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const Descriptor out(ends[0]);
    Descriptor in(ends[1]);
    ASSERT_EQ(::write(in.Get(), std::string(20000, 'x').data(), 20000), 20000);
    EXPECT_EQ(Skipped(out.Get(), 10000), "ok"); // 10240 with padding
    std::string rest(20000, '\0');
    EXPECT_EQ(::read(out.Get(), rest.data(), rest.size()), 20000 - 10240);
    ASSERT_EQ(::write(in.Get(), "12345", 5), 5);
    in.Reset();
    EXPECT_EQ(Skipped(out.Get(), 1024), "failed; didn't finish consuming 0x3FB bytes");
    EXPECT_EQ(Skipped(-1, 512), "failed; lseek64(, 0x200,, SEEK_CUR): Bad file descriptor; "
                                "read(list, 512): Bad file descriptor; didn't finish consuming 0x200 bytes");
}

} // namespace
