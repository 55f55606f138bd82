#include "run.h"

#include <algorithm>
#include <numeric>
#include <utility>

std::uint64_t LoggedRun::Objects() const {
    return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
}

std::uint64_t LoggedRun::Missing() const {
    return Objects() - Count(ObjectOutcome::Saved) - Count(ObjectOutcome::LeftOut);
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

// One object

// Its end is told to the second; what the phases took is known better. It begins when its worker is free at the
// earliest.
void PlaceInTime(Worker& worker, ObjectResult& object) {
    const std::optional<double> seconds = object.Measured();
    object.begun = seconds ? std::max(worker.free_since.value_or(0), object.ended - *seconds)
                           : std::min(worker.free_since.value_or(object.ended), object.ended);
    if (seconds)
        object.ended = object.begun + *seconds;
    worker.free_since = object.ended;
}

// What becomes of a restore's entry shows when all of it is told. The server's word that it restored only a part stands
// on standard error as a failed command, after which the entry counts as done.
void JudgeEntry(Worker& worker, ObjectResult& entry) {
    if (worker.failed)
        entry.outcome = ObjectOutcome::Failed;
    else if (!worker.said.empty())
        entry.outcome = ObjectOutcome::SavedInPart;
    else if (worker.restored)
        entry.outcome = ObjectOutcome::Saved;
    if (!worker.said.empty())
        entry.reason = std::move(worker.said);
    worker.said.clear();
}

void Settle(LoggedRun& run, Worker& worker) {
    if (!worker.pending)
        return;
    ObjectResult object = std::move(*worker.pending);
    worker.pending.reset();
    if (run.mode == Mode::Restore)
        JudgeEntry(worker, object);
    PlaceInTime(worker, object);
    ++run.counts[static_cast<std::size_t>(object.outcome)];
    run.unexplained += object.outcome == ObjectOutcome::LeftOut && object.reason.empty() ? 1 : 0;
    run.bytes += BytesOf(object);
    if (IsMissing(object.outcome) && run.missing.size() < LoggedRun::MostMissing)
        run.missing.push_back(object);
    KeepGreatest(run.drawn, LoggedRun::MostDrawn, object, SpanOf);
    if (object.bytes)
        KeepGreatest(run.largest, LoggedRun::MostLargest, object, BytesOf);
    if (run.on_object)
        run.on_object(run, object);
}

ObjectResult& Report(LoggedRun& run, Worker& worker, const LogLine& line, ObjectOutcome outcome) {
    Settle(run, worker);
    ObjectResult object;
    object.name = line.text;
    object.outcome = outcome;
    object.thread = line.thread;
    object.ended = run.clock.elapsed;
    worker.object = object.name;
    worker.doing = {};
    return worker.pending.emplace(std::move(object));
}

void ReportSave(LoggedRun& run, Worker& worker, const LogLine& line) {
    if (line.kind == LineKind::NotSaved)
        Report(run, worker, line, ObjectOutcome::Failed).reason = worker.said.empty() ? worker.standing : worker.said;
    else if (worker.no_data)
        Report(run, worker, line, ObjectOutcome::NoData).reason =
            "the server saved it without data" + (worker.part.empty() ? "" : "; " + worker.part);
    else if (!worker.part.empty())
        Report(run, worker, line, ObjectOutcome::SavedInPart).reason = worker.part;
    else
        Report(run, worker, line, ObjectOutcome::Saved);
    worker.no_data = false;
    worker.part.clear();
    worker.said.clear();
}

void BeginEntry(LoggedRun& run, Worker& worker, const LogLine& line) {
    Report(run, worker, line, ObjectOutcome::LeftOut);
    worker.free_since = std::max(worker.free_since.value_or(0), run.clock.elapsed);
    worker.restored = worker.failed = false;
    worker.said.clear();
}

struct Figure {
    LineKind kind;
    std::optional<double> ObjectResult::*field;
};
constexpr Figure Figures[] = {{LineKind::ObjectBytes, &ObjectResult::bytes},
                              {LineKind::SaveTime, &ObjectResult::save},
                              {LineKind::WaitTime, &ObjectResult::wait},
                              {LineKind::TransferTime, &ObjectResult::transfer},
                              {LineKind::RestoreTime, &ObjectResult::restore}};

bool TakeFigure(LoggedRun& run, Worker& worker, const LogLine& line) {
    const auto* const figure =
        std::find_if(std::begin(Figures), std::end(Figures), [&](const Figure& one) { return one.kind == line.kind; });
    if (figure == std::end(Figures))
        return false;
    run.has_figures = true;
    if (worker.pending)
        (*worker.pending).*figure->field = line.number;
    return true;
}

// The run as such

void TakeMessage(LoggedRun& run, Worker& worker, const LogLine& line) {
    // A hostile server could echo the passphrase in its reply to PASS.
    if ((line.text.ends_with("command failed") || line.text == "list failed") && line.text != "PASS command failed")
        run.reply_to = line.thread;
    AppendReason(worker.said, line.text);
    if (line.text == "login failed")
        worker.standing = line.text;
    run.fatal |= line.thread == 0 && (line.fatal || (run.mode == Mode::Unknown && line.text == "list failed"));
    if (line.thread == 0 && !worker.pending && run.messages.size() < LoggedRun::MostMessages)
        run.messages.emplace_back(line.text.substr(0, LongestReason));
}

// A line without a prefix: of the message before it, or raw bytes.
void TakeReply(LoggedRun& run, std::string_view text) {
    const auto worker = run.workers.find(std::exchange(run.reply_to, -1));
    if (worker == run.workers.end()) {
        ++run.not_understood;
        return;
    }
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    AppendReason(worker->second.said, text);
    if (worker->first == 0 && !worker->second.pending && !run.messages.empty())
        AppendReason(run.messages.back(), text);
}

void TakeTotal(LoggedRun& run, const LogLine& line) {
    if (line.thread != 0) // a worker's share
        return;
    run.totals[static_cast<std::size_t>(line.total)] = line.number;
    run.ended |= line.total == Total::RunSeconds;
}

void TakeCommand(LoggedRun& run, Worker& worker, const LogLine& line) {
    run.has_commands = true;
    worker.doing = line.detail;
    worker.done = line.detail == "done";
    if (!line.text.empty())
        worker.object = line.text;
    if (line.detail == "saving")
        worker.free_since = std::max(worker.free_since.value_or(0), run.clock.elapsed);
}

bool BeginsRun(const LoggedRun& run, const LogLine& line) {
    if (line.thread != 0)
        return false;
    switch (line.kind) {
    case LineKind::Listing:
        return run.mode != Mode::Unknown || run.ended;
    case LineKind::Listed:
        return run.listed || run.ended || run.mode == Mode::Restore;
    case LineKind::Entry:
        return run.ended || run.mode == Mode::Backup;
    case LineKind::Sent:
    case LineKind::Message:
        return run.ended;
    default:
        return false;
    }
}

void BeginAnew(LoggedRun& run) {
    FinishRun(run);
    LoggedRun next;
    next.on_object = std::move(run.on_object);
    next.earlier_runs = run.earlier_runs + 1;
    run = std::move(next);
}

// The thread's worker; none beyond the most that a run can have.
Worker* FindWorker(LoggedRun& run, int thread) {
    if (run.workers.size() >= LoggedRun::MostWorkers && !run.workers.contains(thread))
        return nullptr;
    return &run.workers[thread];
}

void TakeEvent(LoggedRun& run, Worker& worker, const LogLine& line) {
    switch (line.kind) {
    case LineKind::Refused:
        run.fatal = true;
        break;
    case LineKind::Listing:
        run.mode = Mode::Backup;
        worker.doing = "listing";
        break;
    case LineKind::Listed:
        run.mode = Mode::Backup;
        run.listed = true;
        worker.doing = "directing the workers";
        worker.object.clear();
        break;
    case LineKind::Saved:
    case LineKind::NotSaved:
        run.mode = Mode::Backup;
        ReportSave(run, worker, line);
        break;
    case LineKind::SavedInPart:
        AppendReason(worker.part, line.detail);
        break;
    case LineKind::NoData:
        worker.no_data = true;
        break;
    case LineKind::NotFound:
        Report(run, worker, line, ObjectOutcome::NotFound).reason = "no such path on the server";
        Settle(run, worker);
        break;
    case LineKind::Entry:
        run.mode = Mode::Restore;
        BeginEntry(run, worker, line);
        break;
    case LineKind::Restored:
        worker.restored = true;
        break;
    case LineKind::EntryFailed:
        worker.failed = true;
        break;
    case LineKind::LeftOut:
        if (worker.pending && run.mode == Mode::Restore)
            worker.pending->reason = "an include or exclude file leaves it out, or a part of it";
        break;
    case LineKind::Sent:
        TakeCommand(run, worker, line);
        break;
    case LineKind::WorkerDone:
        worker.done = true;
        break;
    case LineKind::Complete:
        run.mode = Mode::Backup;
        run.complete = true;
        break;
    case LineKind::AllRestored:
        Settle(run, worker);
        run.mode = Mode::Restore;
        run.complete = true;
        TakeTotal(run, line);
        break;
    case LineKind::NothingToDo:
        run.idle |= line.thread == 0;
        break;
    case LineKind::Total:
        TakeTotal(run, line);
        break;
    case LineKind::Terminated:
        run.terminated = true;
        break;
    case LineKind::Message:
        TakeMessage(run, worker, line);
        break;
    case LineKind::Unknown:
        ++run.not_understood;
        break;
    default:
        break;
    }
}

} // namespace

void TakeLogLine(LoggedRun& run, std::string_view text) {
    const LogLine line = ParseLogLine(text);
    if (BeginsRun(run, line))
        BeginAnew(run);
    ++run.lines;
    if (line.kind == LineKind::Reply) {
        TakeReply(run, line.text);
        return;
    }
    run.reply_to = -1;
    run.clock.Take(line.time);
    Worker* const worker = FindWorker(run, line.thread);
    if (worker == nullptr) {
        ++run.not_understood;
        return;
    }
    const bool restoring = run.mode == Mode::Restore && line.kind != LineKind::Total;
    if (worker->pending && restoring)
        worker->pending->ended = run.clock.elapsed;
    if (TakeFigure(run, *worker, line))
        return;
    // The figures of a save follow its result at once.
    if (!restoring && line.kind != LineKind::Unknown && line.kind != LineKind::Silent)
        Settle(run, *worker);
    TakeEvent(run, *worker, line);
}

void FinishRun(LoggedRun& run) {
    for (auto& [thread, worker] : run.workers)
        Settle(run, worker);
}
