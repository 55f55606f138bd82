// Runs that are stopped, by a signal or by their own disk, at every place where that makes a difference.

#include <cerrno>
#include <csignal>

#include "socket.h"
#include "sweep_support.h"

namespace {

bool Holds(const std::string& text, const std::string& part) {
    return text.find(part) != text.npos;
}

class Stop : public testing::TestWithParam<Mode> {};

std::string Name(const testing::TestParamInfo<Mode>& info) {
    return ModeName(info.param);
}

// More than a backup makes calls of one kind: every entry in pieces of the transfer buffer, and what closes it.
std::size_t MostCalls(const ArchiveChain& archive) {
    std::size_t calls = 4;
    for (const ArchiveEntry& entry : archive.entries)
        calls += entry.data.size() / TransferCapacity + 5;
    return calls;
}

Disturbance OnDisk(const char* call, std::size_t nth, const std::string& what) {
    Disturbance disturbance;
    disturbance.what = std::string(call) + ":" + std::to_string(nth) + ":" + what;
    disturbance.environment["VONDRAL_TEST_DISK"] = disturbance.what;
    return disturbance;
}

// What stands in the archive of a stopped run is whole, and comes back.
void ComesBack(const Rehearsal& rehearsal, const Finished& run) {
    for (const ArchiveEntry& entry : run.archive.entries) {
        bool whole = false;
        for (const ArchiveEntry& original : rehearsal.Undisturbed().archive.entries)
            whole = whole || (original.name == entry.name && original.data == entry.data);
        EXPECT_TRUE(whole) << entry.name;
    }
    if (!run.archive_bytes.empty()) { // not before its first sentinel
        EXPECT_EQ(rehearsal.JudgeRestoreOf(run), "");
    }
}

TEST_P(Stop, TerminatedAtEveryCommand) {
    const Rehearsal rehearsal(GetParam());
    std::vector<Disturbance> all;
    int commands = 0;
    for (const rehearsal::Exchange& exchange : rehearsal.Undisturbed().exchanges) {
        if (exchange.command.empty())
            continue;
        Disturbance disturbance;
        disturbance.what = "SIGTERM at " + exchange.command;
        disturbance.terminate_at = commands++;
        all.push_back(disturbance);
    }
    Sweep("sigterm", rehearsal, all, [&](const Finished& run, const Disturbance& disturbance) {
        if (disturbance.terminate_at + 1 < commands) { // at the last one, QUIT, it comes too late
            EXPECT_EQ(run.outcome.status, 143) << disturbance.what;
            EXPECT_TRUE(Holds(run.outcome.err, "Terminated Cleanly\n")) << run.outcome.err;
        }
        if (GetParam() != Mode::Restore)
            ComesBack(rehearsal, run);
    });
}

INSTANTIATE_TEST_SUITE_P(Runs, Stop, testing::Values(Mode::Backup, Mode::ThreadedBackup, Mode::Restore), Name);

class Disk : public testing::TestWithParam<Mode> {};

TEST_P(Disk, KilledAtEveryCallThatChangesTheArchive) {
    const Rehearsal rehearsal(GetParam());
    std::vector<Disturbance> all;
    for (const char* call : {"write", "lseek", "ftruncate", "fdatasync"})
        for (std::size_t nth = 1; nth <= MostCalls(rehearsal.Undisturbed().archive); ++nth)
            all.push_back(OnDisk(call, nth, "kill"));
    Sweep("sigkill", rehearsal, all, [&](const Finished& run, const Disturbance&) { ComesBack(rehearsal, run); });
}

TEST_P(Disk, FailsAtEveryCallThatChangesTheArchive) {
    const Rehearsal rehearsal(GetParam());
    std::vector<Disturbance> all;
    const std::string full = std::to_string(ENOSPC);
    const std::string broken = std::to_string(EIO);
    for (std::size_t nth = 1; nth <= MostCalls(rehearsal.Undisturbed().archive); ++nth) {
        for (const std::string& what : {full, "+" + full, broken, "+" + broken, std::string("/0"), std::string("/1"),
                                        std::string("/511"), std::string("/512"), std::string("/1000")})
            all.push_back(OnDisk("write", nth, what));
        for (const char* call : {"lseek", "ftruncate", "fdatasync", "output"})
            all.push_back(OnDisk(call, nth, broken));
    }
    Sweep("failing_disk", rehearsal, all, [](const Finished& run, const Disturbance& disturbance) {
        // Status 0 only where there was no such call to fail.
        EXPECT_EQ(run.outcome.status == 0, run.outcome.err.empty()) << disturbance.what << "\n" << run.outcome.err;
    });
}

TEST_P(Disk, EndsAtEveryBlock) {
    const Rehearsal rehearsal(GetParam());
    std::vector<Disturbance> all;
    constexpr std::uint64_t log_room = 8192; // the log, which is limited too, is wanted whole
    for (std::uint64_t limit = log_room; limit < rehearsal.Undisturbed().archive_bytes.size(); limit += 512)
        for (const std::uint64_t odd : {0, 1, 511}) {
            Disturbance disturbance;
            disturbance.what = "file size limit " + std::to_string(limit + odd);
            disturbance.file_size_limit = limit + odd;
            all.push_back(disturbance);
        }
    Sweep("size_limit", rehearsal, all, [](const Finished& run, const Disturbance& disturbance) {
        EXPECT_NE(run.outcome.status, 0) << disturbance.what;
    });
}

INSTANTIATE_TEST_SUITE_P(Runs, Disk, testing::Values(Mode::Backup, Mode::ThreadedBackup), Name);

} // namespace
