#include "html.h"

#include <algorithm>

#include "display.h"
#include "page_style.h"
#include "support.h"
#include "timeline.h"
#include "verdict.h"

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

const char* Title(const LoggedRun& run) {
    return run.mode == Mode::Backup ? "Backup" : run.mode == Mode::Restore ? "Restore" : "Run";
}

std::string Header(const LoggedRun& run, std::time_t ended) {
    const char* const status = StatusName(StatusOf(run));
    std::string html = FormatText("<h1>%s <span class=\"pill %s\">%s</span></h1>", Title(run), status, status);
    html += "<p class=\"quiet\">";
    html += ended > 0 ? "The log ends on " + Moment(ended) : std::string("The log tells no time");
    if (const std::optional<int> exit_status = ExpectedExitStatus(run))
        html += FormatText("; by it the exit status was %d", *exit_status);
    return html + ".</p>";
}

std::string Tiles(const LoggedRun& run) {
    const auto count = [&run](ObjectOutcome outcome) { return std::to_string(run.Count(outcome)); };
    std::string html = "<div class=\"tiles\">";
    html += Tile(run.mode == Mode::Restore ? "objects restored" : "objects saved", count(ObjectOutcome::Saved));
    if (const auto failed = CountTold(run, ObjectOutcome::Failed))
        html += Tile("objects failed", std::to_string(*failed), *failed > 0 ? "bad" : "");
    else if (const double files = UnnamedFailures(run); files > 0)
        html += Tile("files failed", FormatText("%.0f", files), "bad");
    for (const ObjectOutcome outcome :
         {ObjectOutcome::SavedInPart, ObjectOutcome::NoData, ObjectOutcome::NotFound, ObjectOutcome::LeftOut})
        if (run.Count(outcome) > 0)
            html += Tile(OutcomeName(outcome, run.mode), count(outcome), "warn");
    if (const std::optional<double> bytes = run.Get(Total::Bytes))
        html += Tile(run.mode == Mode::Restore ? "restored" : "backed up", ShowBytes(*bytes));
    else if (run.HasSizes())
        html += Tile("in these objects", ShowBytes(run.bytes));
    if (const std::optional<double> seconds = run.Get(Total::RunSeconds))
        html += Tile("run time", ShowDuration(*seconds));
    else
        html += Tile("from first to last line", ShowDuration(run.clock.elapsed));
    return html + "</div>";
}

std::string MissingSection(const LoggedRun& run) {
    std::string html;
    if (!run.missing.empty()) {
        html += "<section class=\"bad\" id=\"missing\">" + Heading("Missing, wholly or in part", run.Missing());
        html += "<table><tr><th>Object</th><th>Outcome</th><th>At</th><th>Why</th></tr>";
        for (const ObjectResult& object : run.missing)
            html +=
                "<tr><td class=\"name\">" + HtmlText(object.name) +
                FormatText("</td><td class=\"outcome %s\">", object.outcome == ObjectOutcome::Failed ? "failed" : "") +
                OutcomeName(object.outcome, run.mode) + "</td><td class=\"number\">" +
                ShowTime(run.clock.first + object.ended) + "</td><td>" +
                (object.reason.empty() ? "<span class=\"quiet\">the log does not tell</span>"
                                       : HtmlText(object.reason)) +
                "</td></tr>";
        html += "</table></section>";
    }
    if (!run.messages.empty()) {
        html += "<section class=\"bad\"><h2>Messages about the run</h2><ul>";
        for (const std::string& message : run.messages)
            html += "<li>" + HtmlText(message) + "</li>";
        html += "</ul></section>";
    }
    return html;
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
                              NameList("There again", changes.there_again);
    return "<section id=\"changes\"><h2>Since the run of <span class=\"name\">" + HtmlText(past.path) + "</span></h2>" +
           (lists.empty() ? "<p>The same objects, and none of them missing as far as the log tells.</p>" : lists) +
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
    const Entry legend[] = {{"save", "the server saves", run.has_figures && !restore},
                            {"wait", "waits for the archive", run.has_figures && !restore},
                            {"transfer", "transfer", run.has_figures},
                            {"restore", "the server restores", run.has_figures && restore},
                            {"whole", "all phases", !run.has_figures},
                            {"missing", "missing, wholly or in part", run.Missing() > 0}};
    std::string html = "<section id=\"timeline\"><h2>Workers</h2><p class=\"legend\">";
    for (const Entry& entry : legend)
        if (entry.used)
            html += FormatText("<span><i class=\"%s\"></i>%s</span>", entry.style, entry.label);
    return html + "</p>" + svg + "</section>";
}

std::string Seconds(const std::optional<double>& seconds) {
    return seconds ? ShowDuration(*seconds) : "";
}

std::string ObjectTable(const LoggedRun& run, const char* title, std::vector<ObjectResult> objects) {
    constexpr std::size_t most = LoggedRun::MostLargest;
    if (objects.empty())
        return {};
    objects.resize(std::min(objects.size(), most));
    const bool restore = run.mode == Mode::Restore;
    std::string html = FormatText("<section><h2>%s</h2><table><tr><th>Object</th>", title);
    for (const char* const column : {restore ? "" : "Size", restore ? "" : "Save", restore ? "" : "Wait", "Transfer",
                                     restore ? "Restore" : "", "All"})
        if (*column != '\0')
            html += FormatText("<th class=\"number\">%s</th>", column);
    html += "</tr>";
    const auto cell = [&html](const std::string& text) { html += "<td class=\"number\">" + text + "</td>"; };
    for (const ObjectResult& object : objects) {
        html += "<tr><td class=\"name\">" + HtmlText(object.name) + "</td>";
        if (!restore) {
            cell(object.bytes ? ShowBytes(*object.bytes) : "");
            cell(Seconds(object.save));
            cell(Seconds(object.wait));
        }
        cell(Seconds(object.transfer));
        if (restore)
            cell(Seconds(object.restore));
        cell(ShowDuration(SpanOf(object)));
        html += "</tr>";
    }
    return html + "</table></section>";
}

std::string TotalsSection(const LoggedRun& run) {
    std::string rows;
    for (std::size_t i = 0; i < TotalCount; ++i) {
        if (!run.totals[i])
            continue;
        std::string name = TotalNames[i];
        std::replace(name.begin(), name.end(), '_', ' ');
        const bool seconds = name.ends_with(" seconds");
        if (seconds)
            name.replace(name.size() - 7, 7, "time");
        const std::string value = seconds                   ? ShowDuration(*run.totals[i])
                                  : name.ends_with("bytes") ? ShowBytes(*run.totals[i])
                                                            : FormatText("%.0f", *run.totals[i]);
        rows += "<tr><td>" + name + "</td><td class=\"number\">" + value + "</td></tr>";
    }
    if (rows.empty())
        return {};
    return "<section><h2>Totals of the log</h2><p class=\"quiet\">They count the files in a directory that was saved "
           "as one, one by one, and add up the seconds of all workers.</p><table class=\"narrow\">" +
           rows + "</table></section>";
}

std::string OmissionsSection(const LoggedRun& run) {
    std::string html = "<section id=\"omissions\"><h2>What the log does not tell</h2><ul>";
    for (const std::string& omission : Omissions(run))
        html += "<li>" + omission + "</li>";
    return html + FormatText("</ul><p class=\"quiet\">Of %llu lines %llu were not understood.</p></section>",
                             Number{run.lines}, Number{run.not_understood});
}

} // namespace

std::string HtmlPage(const LoggedRun& run, std::time_t ended, const PastRun* past, const Changes* changes) {
    std::string html =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'\">"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"><title>";
    html += FormatText("%s: %s", Title(run), StatusName(StatusOf(run)));
    html += "</title><style>" + std::string(PageStyle) + "</style></head>\n<body><main>";
    html += Header(run, ended) + Tiles(run) + MissingSection(run);
    if (past != nullptr && changes != nullptr)
        html += ChangesSection(*past, *changes);
    html += TimelineSection(run) + ObjectTable(run, "Largest", Ranked(run.largest, BytesOf)) +
            (run.has_figures ? ObjectTable(run, "Slowest", Ranked(run.drawn, SpanOf)) : "");
    return html + TotalsSection(run) + OmissionsSection(run) + "</main></body></html>\n";
}
