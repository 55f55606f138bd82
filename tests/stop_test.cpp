// Runs that are stopped, by a signal or by their own disk, at every place where that makes a difference.

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "socket.h"
#include "sweep_support.h"

namespace {

class Stop : public testing::TestWithParam<Mode> {};

std::string Name(const testing::TestParamInfo<Mode>& info) {
    return ModeName(info.param);
}

// More than a backup makes calls of one kind: every entry in pieces of the transfer buffer, and what closes it. Also
// more than it has lines in its log.
std::size_t MostCalls(const ArchiveChain& archive) {
    std::size_t calls = 4;
    for (const ArchiveEntry& entry : archive.entries)
        calls += entry.data.size() / TransferCapacity + 5;
    return calls;
}

Disturbance OnDisk(const char* call, std::size_t nth, const std::string& what) {
    Disturbance disturbance;
    disturbance.disk = disturbance.what = std::string(call) + ":" + std::to_string(nth) + ":" + what;
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
    if (run.archive_bytes != FormerArchive) {
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
    for (const char* call : {"write", "lseek", "ftruncate", "fdatasync", "catalog"})
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
        for (const char* call : {"lseek", "ftruncate", "fdatasync"})
            all.push_back(OnDisk(call, nth, broken));
    }
    Sweep("failing_disk", rehearsal, all, [](const Finished& run, const Disturbance& disturbance) {
        // A write that takes less than it is given is no failure while the next one goes on.
        const bool cut = disturbance.disk.find('/') != disturbance.disk.npos;
        EXPECT_TRUE(cut || run.struck == (run.outcome.status != 0)) << disturbance.what << "\n" << run.outcome.err;
        EXPECT_TRUE(run.struck || run.outcome.err.empty()) << disturbance.what << "\n" << run.outcome.err;
    });
}

TEST_P(Disk, EndsAtEveryBlock) {
    const Rehearsal rehearsal(GetParam());
    std::vector<Disturbance> all;
    for (std::size_t limit = 0; limit < rehearsal.Undisturbed().archive_bytes.size(); limit += 512)
        for (const std::size_t odd : {0, 1, 511}) {
            Disturbance disturbance;
            disturbance.disk = disturbance.what = "limit:" + std::to_string(limit + odd);
            all.push_back(disturbance);
        }
    Sweep("size_limit", rehearsal, all, [](const Finished& run, const Disturbance& disturbance) {
        EXPECT_NE(run.outcome.status, 0) << disturbance.what;
    });
}

INSTANTIATE_TEST_SUITE_P(Runs, Disk, testing::Values(Mode::Backup, Mode::ThreadedBackup), Name);

class Outputs : public testing::TestWithParam<Mode> {};

// The log tells what is in the archive, but is not what the run is about: its loss is told, and the status stands.
TEST_P(Outputs, FailAtEveryLine) {
    const Rehearsal rehearsal(GetParam());
    const auto lines = static_cast<std::size_t>(std::ranges::count(rehearsal.Undisturbed().outcome.out, '\n'));
    std::vector<Disturbance> all;
    for (std::size_t nth = 1; nth <= lines; ++nth)
        for (const char* const call : {"catalog", "list", "log"})
            for (const int error : {ENOSPC, EIO})
                for (const char* const onwards : {"", "+"})
                    all.push_back(OnDisk(call, nth, onwards + std::to_string(error)));
    Sweep("outputs", rehearsal, all, [](const Finished& run, const Disturbance& disturbance) {
        EXPECT_EQ(run.outcome.status, run.struck && !disturbance.IsOf("log") ? 255 : 0) << disturbance.what;
        EXPECT_EQ(Holds(run.outcome.err, "]: write("), run.struck) << disturbance.what << "\n" << run.outcome.err;
    });
}

INSTANTIATE_TEST_SUITE_P(Runs, Outputs, testing::Values(Mode::List, Mode::Backup, Mode::Restore), Name);

} // namespace
