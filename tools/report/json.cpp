#include "json.h"

#include <cmath>

#include <nlohmann/json.hpp>

#include "display.h"
#include "verdict.h"

namespace {

using Record = nlohmann::ordered_json;

void WriteRecord(Output& output, const Record& record) {
    Write(output, record.dump(-1, ' ', true, Record::error_handler_t::replace) + "\n");
}

// Whole numbers without a point, as far as they fit; others with the log's three decimals.
void Put(Record& record, const char* name, std::optional<double> value) {
    if (!value)
        return;
    if (*value == std::floor(*value) && *value < 0x1p63)
        record[name] = static_cast<std::int64_t>(*value);
    else
        record[name] = std::round(*value * 1000) / 1000;
}

void WriteChanges(Output& output, const char* change, const Changes::Names& names) {
    for (const std::string& name : names.names)
        WriteRecord(output, {{"type", "change"}, {"change", change}, {"name", name}});
}

Record RunRecord(const LoggedRun& run, std::time_t ended) {
    static constexpr const char* modes[] = {"unknown", "backup", "restore"};
    Record record = {{"type", "run"}, {"run", run.earlier_runs}, {"mode", modes[static_cast<std::size_t>(run.mode)]}};
    record["status"] = StatusName(StatusOf(run));
    if (const std::optional<int> status = ExpectedExitStatus(run))
        record["exit_status"] = *status;
    if (run.clock.first >= 0) {
        record["first_line"] = ShowTime(run.clock.first);
        record["last_line"] = ShowTime(run.clock.last);
        Put(record, "log_seconds", run.clock.elapsed);
    }
    if (ended > 0)
        record["ended"] = static_cast<std::int64_t>(ended);
    for (std::size_t i = 0; i < OutcomeCount; ++i)
        if (const auto count = CountTold(run, static_cast<ObjectOutcome>(i)))
            record["objects"][OutcomeName(static_cast<ObjectOutcome>(i), run.mode)] = *count;
    if (run.HasSizes())
        Put(record, "object_bytes", run.bytes);
    record["lines"] = run.lines;
    record["lines_not_understood"] = run.not_understood;
    record["not_told"] = Omissions(run);
    return record;
}

} // namespace

void WriteObjectRecord(Output& output, const LoggedRun& run, const ObjectResult& object) {
    Record record = {{"type", IsMissing(object.outcome) ? "failure" : "object"},
                     {"run", run.earlier_runs},
                     {"name", object.name},
                     {"outcome", OutcomeName(object.outcome, run.mode)},
                     {"thread", object.thread}};
    Put(record, "begun", object.begun);
    Put(record, "ended", object.ended);
    Put(record, "bytes", object.bytes);
    Put(record, "save_seconds", object.save);
    Put(record, "wait_seconds", object.wait);
    Put(record, "transfer_seconds", object.transfer);
    Put(record, "restore_seconds", object.restore);
    if (!object.reason.empty())
        record["reason"] = object.reason;
    WriteRecord(output, record);
}

void WriteRunRecords(Output& output, const LoggedRun& run, std::time_t ended, const Changes* changes) {
    for (const std::string& message : run.messages)
        WriteRecord(output, {{"type", "message"}, {"text", message}});
    if (changes != nullptr) {
        WriteChanges(output, "newly missing", changes->newly_missing);
        WriteChanges(output, "there again", changes->there_again);
        WriteChanges(output, "still missing", changes->still_missing);
        WriteChanges(output, "no longer named", changes->no_longer_named);
    }
    for (std::size_t i = 0; i < TotalCount; ++i)
        if (run.totals[i]) {
            Record record = {{"type", "total"}, {"name", TotalNames[i]}};
            Put(record, "value", run.totals[i]);
            WriteRecord(output, record);
        }
    WriteRecord(output, RunRecord(run, ended));
}
