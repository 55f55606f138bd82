#include "json.h"

#include <cmath>

#include <nlohmann/json.hpp>

#include "verdict.h"

namespace report {

namespace {

using Record = nlohmann::ordered_json;

void WriteRecord(Output& output, const Record& record) {
    Write(output, record.dump(-1, ' ', true, Record::error_handler_t::replace) + "\n");
}

// Integers where they fit; other numbers with the three decimals of the log.
void Put(Record& record, const char* name, std::optional<double> value) {
    if (!value)
        return;
    if (*value == std::floor(*value) && *value < 0x1p63)
        record[name] = static_cast<std::int64_t>(*value);
    else
        record[name] = std::round(*value * 1000) / 1000;
}

// An epoch time, `seconds` after `moment`; left out when the moment is 0.
void PutTime(Record& record, const char* name, std::time_t moment, double seconds = 0) {
    if (moment > 0)
        Put(record, name, static_cast<double>(moment) + seconds);
}

void WriteChanges(Output& output, const char* change, const Changes::Names& names) {
    for (const std::string& name : names.names)
        WriteRecord(output, {{"type", "change"}, {"change", change}, {"name", name}});
}

Record FaultRecord(const LoggedRun& run, const ConnectionFault& fault, std::time_t started) {
    Record record = {{"type", "connection"}, {"thread", fault.thread}};
    PutTime(record, "time", started, fault.time);
    if (!fault.during.empty())
        record["during"] = fault.during;
    record["recovered"] = fault.recovered;
    record["text"] = FaultText(fault, run.clock.first);
    record["lines"] = fault.lines;
    return record;
}

Record RunRecord(const LoggedRun& run, const RunContext& context, std::time_t started, std::time_t ended) {
    static constexpr const char* modes[] = {"unknown", "backup", "restore"};
    Record record = {{"type", "run"}, {"run", run.earlier_runs}, {"mode", modes[static_cast<std::size_t>(run.mode)]}};
    record["status"] = StatusName(StatusOf(run));
    if (const std::optional<int> status = ExpectedExitStatus(run))
        record["exit_status"] = *status;
    PutTime(record, "start_time", started);
    PutTime(record, "end_time", ended);
    for (std::size_t i = 0; i < OutcomeCount; ++i)
        if (const auto count = KnownCount(run, static_cast<Outcome>(i)))
            record[PluralUnitName(run.mode)][OutcomeName(static_cast<Outcome>(i), run.mode)] = *count;
    if (run.HasSizes())
        Put(record, "bytes", run.bytes);
    record["lines"] = run.lines;
    record["lines_not_understood"] = run.not_understood;
    record["omissions"] = Omissions(run, context);
    return record;
}

void PutContext(Record& record, const RunContext& context) {
    const std::pair<const char*, const std::string&> names[] = {
        {"server", context.server}, {"archive", context.archive}, {"night", context.night}};
    for (const auto& [name, value] : names)
        if (!value.empty())
            record[name] = value;
    if (context.judgement) {
        record["verdict"] = context.judgement->verdict;
        record["good"] = context.judgement->good;
        record["reasons"] = context.judgement->reasons;
    }
    if (context.loss) {
        record["files_attempted"] = context.loss->attempted;
        record["files_covered"] = context.loss->covered;
        record["files_missing"] = context.loss->Missing();
        Put(record, "archive_bytes", context.loss->bytes);
    }
}

} // namespace

void WriteResultRecord(Output& output, const LoggedRun& run, const Result& result, std::time_t started) {
    Record record = {{"type", IsMissing(result.outcome) ? "missing" : UnitName(run.mode)},
                     {"run", run.earlier_runs},
                     {"name", result.name},
                     {"outcome", OutcomeName(result.outcome, run.mode)},
                     {"thread", result.thread}};
    PutTime(record, "start_time", started, result.start);
    PutTime(record, "end_time", started, result.end);
    Put(record, "seconds", DurationOf(result));
    Put(record, "bytes", result.bytes);
    Put(record, "save_seconds", result.save_seconds);
    Put(record, "wait_seconds", result.wait_seconds);
    Put(record, "transfer_seconds", result.transfer_seconds);
    Put(record, "restore_seconds", result.restore_seconds);
    if (!result.reason.empty())
        record["reason"] = result.reason;
    WriteRecord(output, record);
}

void WriteRunRecords(Output& output, const LoggedRun& run, const RunContext& context, std::time_t started,
                     std::time_t ended, const Changes* changes) {
    for (const std::string& message : run.messages)
        WriteRecord(output, {{"type", "message"}, {"text", message}});
    for (const ConnectionFault& fault : run.faults)
        WriteRecord(output, FaultRecord(run, fault, started));
    if (changes != nullptr) {
        WriteChanges(output, "newly missing", changes->newly_missing);
        WriteChanges(output, "no longer missing", changes->no_longer_missing);
        WriteChanges(output, "still missing", changes->still_missing);
        WriteChanges(output, "no longer named", changes->no_longer_named);
    }
    for (std::size_t i = 0; i < TotalCount; ++i)
        if (run.totals[i]) {
            Record record = {{"type", "total"}, {"name", TotalNames[i]}};
            Put(record, "value", run.totals[i]);
            WriteRecord(output, record);
        }
    Record record = RunRecord(run, context, started, ended);
    PutContext(record, context);
    WriteRecord(output, record);
}

} // namespace report
