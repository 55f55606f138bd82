#include "run.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "text.h"

namespace report {

std::uint64_t LoggedRun::Results() const {
    return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
}

std::uint64_t LoggedRun::Missing() const {
    return Results() - Count(Outcome::Saved) - Count(Outcome::NotRestored);
}

namespace {

constexpr std::size_t LongestReason = 400; // bytes

void AppendReason(std::string& reason, std::string_view more) {
    if (reason.size() >= LongestReason)
        return;
    if (!reason.empty())
        reason += "; ";
    reason.append(more.substr(0, LongestReason - reason.size()));
}

void JoinReason(std::string& reason, std::string more) {
    if (!reason.empty() && !more.empty())
        more += "; ";
    reason.insert(0, more);
}

// The worker's fault is over, or the run is. Returns it as the reason for a failure, "" when there is none.
std::string EndFault(LoggedRun& run, Worker& worker, const std::string& during, bool recovered) {
    if (!worker.fault)
        return {};
    ConnectionFault fault = *std::exchange(worker.fault, std::nullopt);
    fault.recovered = recovered;
    if (!during.empty())
        fault.during = during;
    std::string reason = FaultReason(fault, run.clock.first);
    ++run.fault_count;
    run.lasting_fault_count += recovered ? 0 : 1;
    if (run.faults.size() < LoggedRun::MostFaults)
        run.faults.push_back(std::move(fault));
    return reason;
}

// The log's time of the end is cut to the second; the phases are exact to the millisecond. A result starts when its
// worker is free, or later.
void PlaceInTime(Worker& worker, Result& result) {
    const std::optional<double> seconds = result.PhaseSeconds();
    result.start = seconds ? std::max(worker.free_since.value_or(0), result.end - *seconds)
                           : std::min(worker.free_since.value_or(result.end), result.end);
    if (seconds)
        result.end = result.start + *seconds;
    worker.free_since = result.end;
}

// The outcome of an entry is known only after its last line. When the server restores only part of it, standard error
// has a failed command with the server's reply, but the entry counts as restored.
void JudgeEntry(LoggedRun& run, Worker& worker, Result& entry) {
    const bool recovered = worker.restored && !worker.failed;
    const std::string fault = EndFault(run, worker, entry.name, recovered);
    if (!recovered)
        JoinReason(worker.messages, fault);
    if (worker.failed)
        entry.outcome = Outcome::Failed;
    else if (!worker.messages.empty())
        entry.outcome = Outcome::SavedInPart;
    else if (worker.restored)
        entry.outcome = Outcome::Saved;
    if (!worker.messages.empty())
        entry.reason = std::move(worker.messages);
    worker.messages.clear();
}

void Settle(LoggedRun& run, Worker& worker) {
    if (!worker.pending)
        return;
    Result result = std::move(*worker.pending);
    worker.pending.reset();
    if (run.mode == Mode::Restore)
        JudgeEntry(run, worker, result);
    PlaceInTime(worker, result);
    ++run.counts[static_cast<std::size_t>(result.outcome)];
    run.unexplained += result.outcome == Outcome::NotRestored && result.reason.empty() ? 1 : 0;
    run.bytes += BytesOf(result);
    if (IsMissing(result.outcome) && run.missing.size() < LoggedRun::MostMissing)
        run.missing.push_back(result);
    KeepGreatest(run.longest, LoggedRun::MostLongest, result, DurationOf);
    if (result.bytes)
        KeepGreatest(run.largest, LoggedRun::MostLargest, result, BytesOf);
    if (run.on_result)
        run.on_result(run, result);
}

Result& AddResult(LoggedRun& run, Worker& worker, const LogLine& line, Outcome outcome) {
    Settle(run, worker);
    Result result;
    result.name = line.text;
    result.outcome = outcome;
    result.thread = line.thread;
    result.end = run.clock.elapsed;
    worker.name = result.name;
    worker.doing = {};
    return worker.pending.emplace(std::move(result));
}

void AddSave(LoggedRun& run, Worker& worker, const LogLine& line) {
    const std::string fault =
        EndFault(run, worker, std::string(line.text), line.kind == LineKind::Saved && !worker.no_data);
    if (line.kind == LineKind::NotSaved) {
        std::string& reason = AddResult(run, worker, line, Outcome::Failed).reason;
        reason = worker.messages.empty() ? worker.standing : worker.messages;
        JoinReason(reason, fault);
    } else if (worker.no_data) {
        AddResult(run, worker, line, Outcome::NoData).reason =
            "the server returned no data" + (worker.partial.empty() ? "" : "; " + worker.partial);
    } else if (!worker.partial.empty()) {
        AddResult(run, worker, line, Outcome::SavedInPart).reason = worker.partial;
    } else {
        AddResult(run, worker, line, Outcome::Saved);
    }
    worker.no_data = false;
    worker.partial.clear();
    worker.messages.clear();
}

void AddEntry(LoggedRun& run, Worker& worker, const LogLine& line) {
    AddResult(run, worker, line, Outcome::NotRestored);
    worker.free_since = std::max(worker.free_since.value_or(0), run.clock.elapsed);
    worker.restored = worker.failed = false;
    worker.messages.clear();
}

struct Measurement {
    LineKind kind;
    std::optional<double> Result::*field;
};
constexpr Measurement Measurements[] = {{LineKind::Size, &Result::bytes},
                                        {LineKind::SaveTime, &Result::save_seconds},
                                        {LineKind::WaitTime, &Result::wait_seconds},
                                        {LineKind::TransferTime, &Result::transfer_seconds},
                                        {LineKind::RestoreTime, &Result::restore_seconds}};

// Returns false for a line that is no measurement.
bool ProcessMeasurement(LoggedRun& run, Worker& worker, const LogLine& line) {
    const auto* const measurement = std::find_if(std::begin(Measurements), std::end(Measurements),
                                                 [&](const Measurement& one) { return one.kind == line.kind; });
    if (measurement == std::end(Measurements))
        return false;
    run.has_measurements = true;
    if (worker.pending)
        (*worker.pending).*measurement->field = line.number;
    return true;
}

// What several messages say about one fault is one reason, in words.
void ProcessFault(LoggedRun& run, Worker& worker, const LogLine& line, FaultKind kind) {
    if (!worker.fault) {
        worker.fault.emplace();
        worker.fault->thread = line.thread;
        worker.fault->time = run.clock.elapsed;
        worker.fault->during = line.thread == 0 && worker.doing == "listing" ? "the listing" : "";
    }
    AddToFault(*worker.fault, kind, line.text, line.whole);
}

void ProcessMessage(LoggedRun& run, Worker& worker, const LogLine& line) {
    if (const std::optional<FaultKind> kind = FaultKindOf(line.text)) {
        ProcessFault(run, worker, line, *kind);
        if (!line.fatal)
            return;
    }
    // A hostile server could echo the passphrase in its reply to PASS.
    if ((line.text.ends_with("command failed") || line.text == "list failed") && line.text != "PASS command failed")
        run.reply_to = line.thread;
    AppendReason(worker.messages, line.text);
    if (line.text == "login failed")
        worker.standing = line.text;
    run.fatal |= line.thread == 0 && (line.fatal || (run.mode == Mode::Unknown && line.text == "list failed"));
    if (line.thread == 0 && !worker.pending && run.messages.size() < LoggedRun::MostMessages)
        run.messages.emplace_back(line.text.substr(0, LongestReason));
}

// A line without a prefix: the server's reply below a message, or raw bytes.
void ProcessReply(LoggedRun& run, std::string_view text) {
    const auto worker = run.workers.find(std::exchange(run.reply_to, -1));
    if (worker == run.workers.end()) {
        ++run.not_understood;
        return;
    }
    SkipSpace(text);
    AppendReason(worker->second.messages, text);
    if (worker->first == 0 && !worker->second.pending && !run.messages.empty())
        AppendReason(run.messages.back(), text);
}

void ProcessTotal(LoggedRun& run, const LogLine& line) {
    if (line.thread != 0) // of one worker
        return;
    run.totals[static_cast<std::size_t>(line.total)] = line.number;
    run.ended |= line.total == Total::RunSeconds;
}

void ProcessCommand(LoggedRun& run, Worker& worker, const LogLine& line) {
    run.has_commands = true;
    worker.doing = line.detail;
    worker.done = line.detail == "done";
    if (!line.text.empty())
        worker.name = line.text;
    if (line.detail == "saving")
        worker.free_since = std::max(worker.free_since.value_or(0), run.clock.elapsed);
}

bool StartsRun(const LoggedRun& run, const LogLine& line) {
    if (line.thread != 0)
        return false;
    switch (line.kind) {
    case LineKind::ListingStarted:
        return run.mode != Mode::Unknown || run.ended;
    case LineKind::SavingStarted:
        return run.listed || run.ended || run.mode == Mode::Restore;
    case LineKind::Entry:
        return run.ended || run.mode == Mode::Backup;
    case LineKind::Command:
    case LineKind::Message:
        return run.ended;
    default:
        return false;
    }
}

void StartNextRun(LoggedRun& run) {
    FinishRun(run);
    LoggedRun next;
    next.on_result = std::move(run.on_result);
    next.earlier_runs = run.earlier_runs + 1;
    run = std::move(next);
}

// The thread's worker; null for more workers than a run can have.
Worker* FindWorker(LoggedRun& run, int thread) {
    if (run.workers.size() >= LoggedRun::MostWorkers && !run.workers.contains(thread))
        return nullptr;
    return &run.workers[thread];
}

// Returns false for a line that only a restore, or either, can write.
bool ProcessBackupLine(LoggedRun& run, Worker& worker, const LogLine& line) {
    switch (line.kind) {
    case LineKind::ListingStarted:
        worker.doing = "listing";
        break;
    case LineKind::SavingStarted:
        EndFault(run, worker, {}, worker.messages.empty());
        run.listed = true;
        worker.doing = "directing the workers";
        worker.name.clear();
        break;
    case LineKind::Saved:
    case LineKind::NotSaved:
        AddSave(run, worker, line);
        break;
    case LineKind::BackupComplete:
        run.complete = true;
        break;
    default:
        return false;
    }
    run.mode = Mode::Backup;
    return true;
}

// Returns false for a line that a restore cannot write, or that says nothing about an entry.
bool ProcessRestoreLine(LoggedRun& run, Worker& worker, const LogLine& line) {
    switch (line.kind) {
    case LineKind::Entry:
        run.mode = Mode::Restore;
        AddEntry(run, worker, line);
        return true;
    case LineKind::Restored:
        worker.restored = true;
        return true;
    case LineKind::EntryFailed:
        worker.failed = true;
        return true;
    case LineKind::LeftOut:
        if (worker.pending && run.mode == Mode::Restore)
            worker.pending->reason = "left out, in whole or in part, by an include or exclude file";
        return true;
    case LineKind::RestoreComplete:
        Settle(run, worker);
        run.mode = Mode::Restore;
        run.complete = true;
        ProcessTotal(run, line);
        return true;
    default:
        return false;
    }
}

void ProcessOtherLine(LoggedRun& run, Worker& worker, const LogLine& line) {
    switch (line.kind) {
    case LineKind::UsageError:
        run.fatal = true;
        break;
    case LineKind::SavedInPart:
        AppendReason(worker.partial, line.detail);
        break;
    case LineKind::NoData:
        worker.no_data = true;
        break;
    case LineKind::NotFound:
        AddResult(run, worker, line, Outcome::NotFound).reason = "no such path on the server";
        Settle(run, worker);
        break;
    case LineKind::Command:
        ProcessCommand(run, worker, line);
        break;
    case LineKind::WorkerDone:
        worker.done = true;
        break;
    case LineKind::NothingAttempted:
        run.nothing_attempted |= line.thread == 0;
        break;
    case LineKind::Total:
        ProcessTotal(run, line);
        break;
    case LineKind::Terminated:
        run.terminated = true;
        break;
    case LineKind::Message:
        ProcessMessage(run, worker, line);
        break;
    case LineKind::Unknown:
        ++run.not_understood;
        break;
    default:
        break;
    }
}

} // namespace

void ProcessLogLine(LoggedRun& run, std::string_view text) {
    const LogLine line = ParseLogLine(text);
    if (StartsRun(run, line))
        StartNextRun(run);
    ++run.lines;
    if (line.kind == LineKind::Reply) {
        ProcessReply(run, line.text);
        return;
    }
    run.reply_to = -1;
    run.clock.Advance(line.time);
    Worker* const worker = FindWorker(run, line.thread);
    if (worker == nullptr) {
        ++run.not_understood;
        return;
    }
    const bool restoring = run.mode == Mode::Restore && line.kind != LineKind::Total;
    if (worker->pending && restoring)
        worker->pending->end = run.clock.elapsed;
    if (ProcessMeasurement(run, *worker, line))
        return;
    // The measurements of a save directly follow its result.
    if (!restoring && line.kind != LineKind::Unknown && line.kind != LineKind::Ignored)
        Settle(run, *worker);
    if (!ProcessBackupLine(run, *worker, line) && !ProcessRestoreLine(run, *worker, line))
        ProcessOtherLine(run, *worker, line);
}

void FinishRun(LoggedRun& run) {
    for (auto& [thread, worker] : run.workers) {
        Settle(run, worker);
        EndFault(run, worker, worker.doing.empty() ? "" : worker.name, run.complete && worker.done);
    }
}

} // namespace report
