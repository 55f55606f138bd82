// Runs that are stopped, by a signal or by their own disk, at every place where that makes a difference.

#include <cerrno>
#include <csignal>

#include "socket.h"
#include "sweep_support.h"

namespace {

class Stop : public testing::TestWithParam<Mode> {};

const std::string Full = std::to_string(ENOSPC), Broken = std::to_string(EIO);

std::string Name(const testing::TestParamInfo<Mode>& info) {
    return ModeName(info.param);
}

Disturbance OfDisk(const std::string& disk) {
    return {.what = disk, .disk = disk};
}

// Lets all of this befall each call of a kind that the undisturbed run makes.
void Disturb(std::vector<Disturbance>& all, const Rehearsal& rehearsal, const char* call,
             const std::vector<std::string>& whats) {
    for (std::size_t nth = 1; nth <= rehearsal.Undisturbed().calls.at(call); ++nth)
        for (const std::string& what : whats)
            all.push_back(OfDisk(std::string(call) + ":" + std::to_string(nth) + ":" + what));
}

// What stands in the archive of a stopped run is whole, and comes back.
void ComesBack(const Rehearsal& rehearsal, const Finished& run) {
    for (const ArchiveEntry& entry : run.archive.entries)
        EXPECT_GT(std::ranges::count(rehearsal.Undisturbed().archive.entries, entry), 0) << entry.name;
    if (run.archive_bytes != FormerArchive) {
        EXPECT_EQ(rehearsal.JudgeRestoreOf(run), "");
    }
}

// Each object that the server was told to save or restore is done with, and no session began more than one when the
// signal had come; of workers that run one by one none logged in after it. Restored profiles get their authorities.
void CompletesWhatWasBegun(const Finished& run, Mode mode) {
    std::size_t begun = 0;
    int index = 0, authorities = 0;
    std::map<int, int> late; // by session
    for (const rehearsal::Exchange& exchange : run.exchanges) {
        if (exchange.command.starts_with("RCMD RSTAUT")) {
            ++authorities;
        } else if (exchange.command.starts_with("RCMD SAV") || exchange.command.starts_with("RCMD RST")) {
            ++begun;
            late[exchange.session] += index >= run.signalled ? 1 : 0;
        }
        if (mode != Mode::ThreadedBackup && exchange.command.starts_with("USER")) {
            EXPECT_LT(index, run.signalled);
        }
        index += exchange.command.empty() ? 0 : 1;
    }
    EXPECT_EQ(begun, run.archive.entries.size() + Count(run.outcome.out, "Restore Success: "));
    EXPECT_EQ(authorities, Holds(run.outcome.out, "Restore Success: /Security Data\n") ? 1 : 0);
    for (const auto& [session, count] : late)
        EXPECT_LE(count, 1) << "session " << session;
}

TEST_P(Stop, TerminatedAtEveryCommand) {
    const Rehearsal rehearsal(GetParam());
    std::vector<Disturbance> all;
    int commands = 0;
    for (const rehearsal::Exchange& exchange : rehearsal.Undisturbed().exchanges)
        if (!exchange.command.empty())
            all.push_back({.what = "SIGTERM at " + exchange.command, .terminate_at = commands++});
    Sweep("sigterm", rehearsal, all, [&](const Finished& run, const Disturbance& disturbance) {
        if (disturbance.terminate_at + 1 < commands) { // at the last one, QUIT, it comes too late
            EXPECT_EQ(run.outcome.status, 143) << disturbance.what;
            EXPECT_TRUE(Holds(run.outcome.err, "Terminated Cleanly\n")) << run.outcome.err;
        }
        CompletesWhatWasBegun(run, GetParam());
        if (GetParam() != Mode::Restore)
            ComesBack(rehearsal, run);
    });
}

INSTANTIATE_TEST_SUITE_P(Runs, Stop, testing::Values(Mode::Backup, Mode::ThreadedBackup, Mode::Restore), Name);

class Disk : public testing::TestWithParam<Mode> {};

TEST_P(Disk, KilledAtEveryCallThatChangesTheArchive) {
    const Rehearsal rehearsal(GetParam());
    std::vector<Disturbance> all;
    for (const char* call : {"write", "lseek", "ftruncate", "fdatasync", "catalog", "log"})
        Disturb(all, rehearsal, call, {"kill"});
    Sweep("sigkill", rehearsal, all, [&](const Finished& run, const Disturbance& disturbance) {
        EXPECT_EQ(run.archive_bytes == FormerArchive, disturbance.what == "ftruncate:1:kill") << disturbance.what;
        EXPECT_TRUE(disturbance.what != "write:1:kill" || run.archive_bytes.empty());
        ComesBack(rehearsal, run);
    });
}

TEST_P(Disk, FailsAtEveryCallThatChangesTheArchive) {
    const Rehearsal rehearsal(GetParam());
    std::vector<Disturbance> all;
    for (const char* call : {"fdatasync", "ftruncate", "lseek"}) // the flush stands in every sample
        Disturb(all, rehearsal, call, {Broken});
    EXPECT_EQ(all[0].what, "fdatasync:1:" + Broken);
    Disturb(all, rehearsal, "write", {Full, "+" + Full, Broken, "+" + Broken, "/0", "/1", "/511", "/512", "/1000"});
    Sweep("failing_disk", rehearsal, all, [](const Finished& run, const Disturbance& disturbance) {
        // A write that takes less than it is given is no failure while the next one goes on.
        const bool cut = disturbance.disk.find('/') != disturbance.disk.npos;
        EXPECT_TRUE(cut || run.outcome.status != 0) << disturbance.what << "\n" << run.outcome.err;
    });
}

TEST_P(Disk, EndsAtEveryBlock) {
    const Rehearsal rehearsal(GetParam());
    std::vector<Disturbance> all;
    for (std::size_t limit = 0; limit < rehearsal.Undisturbed().archive_bytes.size(); limit += 512)
        for (const std::size_t odd : {0U, 1U, 511U})
            all.push_back(OfDisk("limit:" + std::to_string(limit + odd)));
    Sweep("size_limit", rehearsal, all, [](const Finished& run, const Disturbance& disturbance) {
        EXPECT_NE(run.outcome.status, 0) << disturbance.what;
    });
}

INSTANTIATE_TEST_SUITE_P(Runs, Disk, testing::Values(Mode::Backup, Mode::ThreadedBackup), Name);

class Outputs : public testing::TestWithParam<Mode> {};

// The log tells what is in the archive, but is not what the run is about: its loss is told, and the status stands.
TEST_P(Outputs, FailAtEveryLine) {
    const Rehearsal rehearsal(GetParam());
    std::vector<Disturbance> all;
    for (const char* const call : {"catalog", "list", "log"})
        Disturb(all, rehearsal, call, {Full, "+" + Full, Broken, "+" + Broken});
    Sweep("outputs", rehearsal, all, [](const Finished& run, const Disturbance& disturbance) {
        EXPECT_EQ(run.outcome.status, disturbance.IsOf("log") ? 0 : 255) << disturbance.what;
        EXPECT_TRUE(Holds(run.outcome.err, "]: write(")) << disturbance.what << "\n" << run.outcome.err;
    });
}

INSTANTIATE_TEST_SUITE_P(Runs, Outputs, testing::Values(Mode::List, Mode::Backup, Mode::Restore), Name);

} // namespace
