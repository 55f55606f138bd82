#include "html.h"

#include <algorithm>
#include <span>

#include "display.h"
#include "page_style.h"
#include "text.h"
#include "timeline.h"
#include "verdict.h"

namespace report {

namespace {

using Number = unsigned long long;

std::string Moment(std::time_t moment) {
    std::tm local{};
    ::localtime_r(&moment, &local);
    char text[64];
    return {text, std::strftime(text, sizeof text, "%A, %e %B %Y, %H:%M:%S", &local)};
}

std::string Tile(const char* label, const std::string& value, const char* style = "") {
    return FormatText("<div class=\"tile %s\"><b>%s</b>%s</div>", style, value.c_str(), label);
}

std::string Heading(const char* title, Number count) {
    return FormatText("<h2>%s <span class=\"count\">%llu</span></h2>", title, count);
}

// "Backup of office", or as much as is known.
std::string Title(const LoggedRun& run, const RunContext& context) {
    const char* const title = run.mode == Mode::Backup ? "Backup" : run.mode == Mode::Restore ? "Restore" : "Run";
    if (context.server.empty())
        return title;
    const char* const link = run.mode == Mode::Backup ? " of " : run.mode == Mode::Restore ? " to " : " on ";
    return title + (link + HtmlText(context.server));
}

// Night and archive.
std::string Subtitle(const RunContext& context) {
    std::string html;
    if (!context.night.empty())
        html += "<span>Night <b>" + HtmlText(context.night) + "</b></span>";
    if (!context.archive.empty())
        html += "<span>Archive <b class=\"name\">" + HtmlText(context.archive) + "</b></span>";
    return html.empty() ? html : "<p class=\"subtitle\">" + html + "</p>";
}

// The judgement, or the status according to the log.
std::string StateText(const LoggedRun& run, const RunContext& context) {
    return context.judgement ? HtmlText(context.judgement->verdict) : StatusName(StatusOf(run));
}

// The title of the document, which a browser shows on a tab: what differs between pages comes first.
std::string DocumentTitle(const LoggedRun& run, const RunContext& context) {
    std::string title = Title(run, context) + ": " + StateText(run, context);
    const std::string file = context.archive.substr(context.archive.rfind('/') + 1);
    for (const std::string& name : {context.night, file})
        if (!name.empty())
            title += ", " + HtmlText(name);
    return title;
}

std::string Header(const LoggedRun& run, const RunContext& context, std::time_t ended) {
    const char* style = StatusName(StatusOf(run));
    if (context.judgement)
        style = !context.judgement->good ? "failed" : context.judgement->has_gaps ? "terminated" : "complete";
    std::string html = "<h1>" + Title(run, context) + FormatText(" <span class=\"pill %s\">", style) +
                       StateText(run, context) + "</span></h1>" + Subtitle(context);
    if (context.judgement)
        for (const std::string& reason : context.judgement->reasons)
            html += "<p>" + HtmlText(reason) + "</p>";
    html += "<p class=\"quiet\">";
    html += ended > 0 ? "The log ends on " + Moment(ended) + "." : std::string("The log has no times.");
    if (const std::optional<int> exit_status = ExpectedExitStatus(run))
        html += FormatText(" Exit status according to the log: %d.", *exit_status);
    return html + "</p>";
}

// What is missing in files: the true loss, or what the log says at least.
std::string FileTiles(const LoggedRun& run, const RunContext& context) {
    if (!context.loss) {
        const double failed = UnnamedFailures(run);
        return failed > 0 ? Tile("files failed, at least", FormatText("%.0f", failed), "bad") : "";
    }
    const TrueLoss& loss = *context.loss;
    const std::string share = loss.Missing() > 0 ? " (" + ShowShare(loss.MissingShare()) + ")" : "";
    return Tile("files attempted", std::to_string(loss.attempted)) +
           Tile("files missing", std::to_string(loss.Missing()) + share, loss.Missing() > 0 ? "bad" : "");
}

std::string Tiles(const LoggedRun& run, const RunContext& context) {
    const auto name = [&run](Outcome outcome) { return OutcomeName(outcome, run.mode); };
    const auto count = [&run](Outcome outcome) { return std::to_string(run.Count(outcome)); };
    std::string html = "<div class=\"tiles\">" + Tile(PluralUnitName(run.mode), std::to_string(run.Results())) +
                       Tile(name(Outcome::Saved), count(Outcome::Saved));
    if (KnownCount(run, Outcome::Failed))
        html += Tile(name(Outcome::Failed), count(Outcome::Failed), run.Count(Outcome::Failed) > 0 ? "bad" : "");
    html += FileTiles(run, context);
    for (const Outcome outcome : {Outcome::SavedInPart, Outcome::NoData, Outcome::NotFound, Outcome::NotRestored})
        if (run.Count(outcome) > 0)
            html += Tile(name(outcome), count(outcome), "warn");
    if (context.loss)
        html += Tile("in a sound archive", ShowBytes(context.loss->bytes));
    else if (const std::optional<double> bytes = run.Get(Total::Bytes))
        html += Tile(run.mode == Mode::Restore ? "read from the archive" : "backed up", ShowBytes(*bytes));
    else if (run.HasSizes())
        html += Tile("backed up so far", ShowBytes(run.bytes));
    if (const std::optional<double> seconds = run.Get(Total::RunSeconds))
        html += Tile("run time", ShowDuration(*seconds));
    else
        html += Tile("from first to last line", ShowDuration(run.clock.elapsed));
    return html + "</div>";
}

// A cell; a phone shows `label` in front of it. `style` may be "".
std::string Cell(const char* style, const char* label, const std::string& html) {
    return FormatText("<td class=\"%s\" data-label=\"%s\">", style, label) + html + "</td>";
}

std::string MissingRow(const LoggedRun& run, const Result& result) {
    const char* const unknown = "<span class=\"quiet\">not in this log</span>";
    return "<tr>" + Cell("name", "", HtmlText(result.name)) +
           Cell(result.outcome == Outcome::Failed ? "outcome failed" : "outcome", "",
                OutcomeName(result.outcome, run.mode)) +
           Cell("number", "", ShowTime(run.clock.first + result.end)) +
           Cell("reason", "", result.reason.empty() ? unknown : HtmlText(result.reason)) + "</tr>";
}

std::string MissingSection(const LoggedRun& run) {
    if (run.missing.empty())
        return {};
    std::string html =
        "<section class=\"bad\" id=\"missing\">" + Heading("Missing, in whole or in part", run.Missing());
    html += "<table><tr class=\"head\"><th>Name</th><th>Outcome</th><th class=\"number\">Time</th><th>Reason</th></tr>";
    for (const Result& result : run.missing)
        html += MissingRow(run, result);
    return html + "</table></section>";
}

std::string MessagesSection(const LoggedRun& run) {
    if (run.messages.empty())
        return {};
    std::string html = "<section class=\"bad\"><h2>Messages about the run</h2><ul>";
    for (const std::string& message : run.messages)
        html += "<li>" + HtmlText(message) + "</li>";
    return html + "</ul></section>";
}

bool LostConnection(const LoggedRun& run) {
    return run.lasting_fault_count > 0;
}

// What happened to the connections in words, with the lines of the log folded away.
std::string ConnectionSection(const LoggedRun& run) {
    if (run.faults.empty())
        return {};
    const bool lost = LostConnection(run);
    std::string html = FormatText("<section class=\"%s\" id=\"connection\">", lost ? "bad" : "");
    html += Heading("Connection", run.fault_count);
    for (const ConnectionFault& fault : run.faults) {
        html += "<details><summary>" + HtmlText(FaultText(fault, run.clock.first)) + "</summary><div class=\"lines\">";
        for (const std::string& line : fault.lines)
            html += HtmlText(line) + "\n";
        html += "</div></details>";
    }
    if (lost && run.mode == Mode::Backup)
        html +=
            "<p class=\"quiet\">If the connection was lost while an object was fetched, a restore from this archive "
            "stops at that object and does not reach what was saved after it.</p>";
    return html + "</section>";
}

// Long lists are folded.
std::string NameList(const char* title, const Changes::Names& names) {
    constexpr std::uint64_t most_unfolded = 20;
    if (names.count == 0)
        return {};
    std::string html = FormatText("<details%s><summary>%s <span class=\"count\">%llu</span></summary>",
                                  names.count <= most_unfolded ? " open" : "", title, Number{names.count});
    for (const std::string& name : names.names)
        html += "<div class=\"name\">" + HtmlText(name) + "</div>";
    if (names.names.size() < names.count)
        html += FormatText("<p class=\"quiet\">and %llu more</p>", Number{names.count - names.names.size()});
    return html + "</details>";
}

std::string ChangesSection(const PastRun& past, const Changes& changes) {
    const std::string lists = NameList("Newly missing", changes.newly_missing) +
                              NameList("No longer named in the log", changes.no_longer_named) +
                              NameList("Still missing", changes.still_missing) +
                              NameList("No longer missing", changes.no_longer_missing);
    return "<section id=\"changes\"><h2>Changes since <span class=\"name\">" + HtmlText(past.path) + "</span></h2>" +
           (lists.empty() ? "<p>Nothing is missing, and everything saved then is in this log again.</p>" : lists) +
           "</section>";
}

std::string TimelineSection(const LoggedRun& run) {
    const std::string svg = TimelineSvg(run);
    if (svg.empty())
        return {};
    struct Entry {
        const char* style;
        const char* label;
        bool used;
    };
    const bool restore = run.mode == Mode::Restore;
    const Entry legend[] = {{"save", "server saving", run.has_measurements && !restore},
                            {"wait", "waiting for the archive", run.has_measurements && !restore},
                            {"transfer", "transfer", run.has_measurements},
                            {"restore", "server restoring", run.has_measurements && restore},
                            {"whole", "all phases", !run.has_measurements},
                            {"missing", "missing, in whole or in part", run.Missing() > 0}};
    std::string html = "<section id=\"timeline\"><h2>Workers</h2><p class=\"legend\">";
    for (const Entry& entry : legend)
        if (entry.used)
            html += FormatText("<span><i class=\"%s\"></i>%s</span>", entry.style, entry.label);
    return html + "</p>" + svg + "</section>";
}

struct Column {
    const char* heading;
    bool bytes; // else seconds
    std::optional<double> (*value)(const Result&);
};
constexpr Column Size{"Size", true, [](const Result& result) { return result.bytes; }};
constexpr Column SaveTime{"Save", false, [](const Result& result) { return result.save_seconds; }};
constexpr Column WaitTime{"Wait", false, [](const Result& result) { return result.wait_seconds; }};
constexpr Column TransferTime{"Transfer", false, [](const Result& result) { return result.transfer_seconds; }};
constexpr Column RestoreTime{"Restore", false, [](const Result& result) { return result.restore_seconds; }};
constexpr Column Duration{"All", false, [](const Result& result) { return std::optional(DurationOf(result)); }};
constexpr Column BackupColumns[] = {Size, SaveTime, WaitTime, TransferTime, Duration};
constexpr Column RestoreColumns[] = {TransferTime, RestoreTime, Duration};

const ColumnUnit& UnitOf(const Column& column, const std::vector<Result>& results) {
    double greatest = 0;
    for (const Result& result : results)
        greatest = std::max(greatest, column.value(result).value_or(0));
    return column.bytes ? BytesUnit(greatest) : TimeUnit(greatest);
}

std::string ResultTable(const LoggedRun& run, const char* title, std::vector<Result> results) {
    constexpr std::size_t most = LoggedRun::MostLargest;
    if (results.empty())
        return {};
    results.resize(std::min(results.size(), most));
    const std::span<const Column> columns =
        run.mode == Mode::Restore ? std::span<const Column>(RestoreColumns) : std::span<const Column>(BackupColumns);
    std::string html =
        FormatText("<section><h2>%s %s</h2><table><tr class=\"head\"><th>Name</th>", title, PluralUnitName(run.mode));
    for (const Column& column : columns)
        html += FormatText("<th class=\"number\">%s (%s)</th>", column.heading, UnitOf(column, results).name);
    html += "</tr>";
    for (const Result& result : results) {
        html += "<tr>" + Cell("name", "", HtmlText(result.name));
        for (const Column& column : columns) {
            const ColumnUnit& unit = UnitOf(column, results);
            const std::optional<double> value = column.value(result);
            html += Cell("number", FormatText("%s (%s)", column.heading, unit.name).c_str(),
                         value ? unit.show(*value) : "");
        }
        html += "</tr>";
    }
    return html + "</table></section>";
}

struct TotalRow {
    Total total;
    const char* label;
};
constexpr TotalRow CountRows[] = {{Total::Found, "files found"},
                                  {Total::Attempted, "files attempted"},
                                  {Total::Failed, "files failed, as printed"},
                                  {Total::ParsingErrors, "parsing errors in listings"},
                                  {Total::ListCalls, "listings"}};
constexpr TotalRow BytesRows[] = {{Total::Bytes, "of the archive"}, {Total::ListBytes, "of listings"}};
constexpr TotalRow TimeRows[] = {{Total::RunSeconds, "the run"},
                                 {Total::ListSeconds, "listing"},
                                 {Total::SaveSeconds, "server saving, all workers"},
                                 {Total::WaitSeconds, "waiting, all workers"},
                                 {Total::TransferSeconds, "transfer, all workers"}};

const ColumnUnit& CountUnit(double) {
    static constexpr ColumnUnit unit{"Number", [](double count) { return FormatText("%.0f", count); }};
    return unit;
}

// Totals of one kind, with one unit.
std::string TotalsTable(const LoggedRun& run, const char* heading, std::span<const TotalRow> totals,
                        const ColumnUnit& (*unit_of)(double)) {
    double greatest = 0;
    for (const TotalRow& row : totals)
        greatest = std::max(greatest, run.Get(row.total).value_or(0));
    const ColumnUnit& unit = unit_of(greatest);
    std::string rows;
    for (const TotalRow& row : totals)
        if (const std::optional<double> value = run.Get(row.total))
            rows +=
                FormatText("<tr><td>%s</td><td class=\"number\">%s</td></tr>", row.label, unit.show(*value).c_str());
    if (rows.empty())
        return {};
    return FormatText("<table class=\"plain\"><tr><th>%s</th><th class=\"number\">%s</th></tr>", heading, unit.name) +
           rows + "</table>";
}

std::string TotalsSection(const LoggedRun& run) {
    const std::string tables = TotalsTable(run, "Files and listings", CountRows, CountUnit) +
                               TotalsTable(run, "Bytes", BytesRows, BytesUnit) +
                               TotalsTable(run, "Time", TimeRows, TimeUnit);
    if (tables.empty())
        return {};
    return "<section><h2>Totals in the log</h2><p class=\"quiet\">They count every file of a saved directory.</p>"
           "<div class=\"totals\">" +
           tables + "</div></section>";
}

std::string OmissionsSection(const LoggedRun& run, const RunContext& context) {
    std::string html = "<section id=\"omissions\"><h2>Not known, or not shown</h2><ul>";
    for (const std::string& omission : Omissions(run, context))
        html += "<li>" + omission + "</li>";
    return html + FormatText("</ul><p class=\"quiet\">%llu of %llu lines were not understood.</p></section>",
                             Number{run.not_understood}, Number{run.lines});
}

} // namespace

std::string HtmlPage(const LoggedRun& run, const RunContext& context, std::time_t ended, const PastRun* past,
                     const Changes* changes) {
    std::string html =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'\">"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"><title>";
    html += DocumentTitle(run, context);
    html += "</title><style>" + std::string(PageStyle) + "</style></head>\n<body><main>";
    html += Header(run, context, ended) + Tiles(run, context) + MessagesSection(run);
    html += LostConnection(run) ? ConnectionSection(run) + MissingSection(run)  // the cause first
                                : MissingSection(run) + ConnectionSection(run); // which cost nothing
    if (past != nullptr && changes != nullptr)
        html += ChangesSection(*past, *changes);
    html += TimelineSection(run) + ResultTable(run, "Largest", Ranked(run.largest, BytesOf)) +
            (run.has_measurements ? ResultTable(run, "Slowest", Ranked(run.longest, DurationOf)) : "");
    return html + TotalsSection(run) + OmissionsSection(run, context) + "</main></body></html>\n";
}

} // namespace report
