// vondral-nightly history: one page with a row a night, from which trends can be seen.

#include "subcommands.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <vector>

#include <CLI/CLI.hpp>

#include "config.h"
#include "failure.h"
#include "moments.h"
#include "night.h"
#include "report/display.h"
#include "report/output_file.h"
#include "report/page_style.h"
#include "text.h"

namespace nightly {

namespace {

namespace fs = std::filesystem;

constexpr double SlowerShare = 0.20; // marked when it took so much longer than usual

constexpr char RowStyle[] = R"(
.bar { display: inline-block; height: 9px; border-radius: 2px; vertical-align: middle; margin-right: 8px; }
.chart { white-space: nowrap; } td:first-child { white-space: nowrap; } .slow { color: var(--warn); font-weight: 600; }
.removed { opacity: .55; } td .pill { white-space: nowrap; } .pill.good { background: var(--good); }
.pill.gaps, .pill.suspicious { background: var(--warn); } .pill.failed { color: var(--pill); } a { color: inherit; }
.reason { font-size: 13px; color: var(--quiet); min-width: 135px; }
@media (max-width: 640px) { main { padding: 16px 8px 40px; } section { padding: 12px; }
  table { min-width: 0; } thead { display: none; } tr { display: block; padding: 8px 0; border-bottom: 1px solid var(--line); }
  td { display: inline-block; border: 0; padding: 2px 12px 2px 0; } td.number::before { content: attr(data-label) " ";
  color: var(--quiet); font-size: 13px; } td.chart, td.reason { display: block; min-width: 0; } }
)";

// One row: a night, and what is usual for its level.
struct Row {
    const Night& night;
    double usual_seconds = 0; // median of the good nights of its level before it, at most 30; 0 without any

    bool IsSlow() const { return usual_seconds > 0 && night.record->Seconds() > usual_seconds * (1 + SlowerShare); }
};

std::vector<Row> BuildRows(const std::vector<Night>& nights) {
    std::vector<Row> rows;
    for (const Night& night : nights)
        if (night.record && !night.foreign)
            rows.push_back({night, UsualSeconds(nights, night.record->level, night.moment)});
    return rows;
}

// A bar as long as its share of the greatest value, and the value.
std::string Chart(double value, double greatest, const char* colour, const std::string& text, bool marked) {
    const double width = greatest > 0 ? 50 * value / greatest : 0; // pixels
    return FormatText("<td class=\"chart\"><span class=\"bar %s\" style=\"width:%.0fpx\"></span>"
                      "<span class=\"%s\">%s</span></td>",
                      colour, std::max(width, 1.0), marked ? "slow" : "", text.c_str());
}

std::string Number(const char* label, std::uint64_t value) {
    return FormatText("<td class=\"number\" data-label=\"%s\">%llu</td>", label, Printable(value));
}

// The page's own style for a verdict.
const char* PillStyle(Verdict verdict) {
    static constexpr const char* styles[] = {"good", "gaps", "suspicious", "failed"};
    return styles[static_cast<std::size_t>(verdict)];
}

std::string RowHtml(const Row& row, const Config& config, const fs::path& from, double most_seconds,
                    double most_bytes) {
    const Night& night = row.night;
    const NightRecord& record = *night.record;
    const std::string name = ShowMoment(night.moment, config.timezone);
    const std::string page = fs::proximate(night.File(NightFiles::Page), from);
    std::string html = FormatText("<tr class=\"%s\"><td>", night.has_archive ? "" : "removed");
    html += Exists(night.File(NightFiles::Page)) ? "<a href=\"" + report::HtmlText(page) + "\">" + name + "</a>" : name;
    html += FormatText("</td><td>%s</td><td><span class=\"pill %s\">%s</span></td>", LevelName(record.level),
                       PillStyle(record.verdict), VerdictName(record.verdict));
    const std::string slow = FormatText(
        "%s%s", report::ShowDuration(record.Seconds()).c_str(),
        row.IsSlow() ? FormatText(", %.0f %% slower", 100 * (record.Seconds() / row.usual_seconds - 1)).c_str() : "");
    html += Chart(record.Seconds(), most_seconds, "save", slow, row.IsSlow());
    html += Chart(static_cast<double>(record.bytes), most_bytes, "transfer",
                  report::ShowBytes(static_cast<double>(record.bytes)), false);
    html += Number("files", record.objects) + Number("missing", record.missing) + Number("new", record.newly_missing);
    html += "<td class=\"reason\">" + report::HtmlText(record.reasons.empty() ? "" : record.reasons.front()) +
            (night.has_archive ? "" : " (archive removed)") + "</td></tr>\n";
    return html;
}

std::string HistoryPage(const Config& config, const std::vector<Night>& nights, const fs::path& from) {
    const std::vector<Row> rows = BuildRows(nights);
    double most_seconds = 0, most_bytes = 0;
    std::uint64_t good = 0;
    for (const Row& row : rows) {
        most_seconds = std::max(most_seconds, row.night.record->Seconds());
        most_bytes = std::max(most_bytes, static_cast<double>(row.night.record->bytes));
        good += row.night.IsGood() ? 1U : 0U;
    }
    const std::string server = report::HtmlText(config.server);
    std::string html =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'\">"
        "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"><title>Nights of " +
        server + "</title><style>" + report::PageStyle + RowStyle + "</style></head>\n<body><main>";
    html += FormatText("<h1>Nights of %s</h1><p class=\"quiet\">%zu nights, %llu of them good. Times are in %s. A "
                       "night is marked when it took %.0f %% longer than the median of the 30 good ones of its level "
                       "before it.</p>",
                       server.c_str(), rows.size(), Printable(good), config.timezone.c_str(), SlowerShare * 100);
    html += "<section><table><thead><tr><th>Night</th><th>Level</th><th>Verdict</th><th>Duration</th><th>Size</th>"
            "<th class=\"number\">Files</th><th class=\"number\">Missing</th><th class=\"number\">New</th>"
            "<th>Why</th></tr></thead><tbody>\n";
    for (auto row = rows.rbegin(); row != rows.rend(); ++row)
        html += RowHtml(*row, config, from, most_seconds, most_bytes);
    return html + "</tbody></table></section></main></body></html>\n";
}

} // namespace

Action DeclareHistory(CLI::App& command, const std::string& configs) {
    static std::string name, path;
    command.add_option("NAME", name, "the server")->required();
    command.add_option("--html", path, "the page to write")->type_name("FILE")->required();
    return [&configs] {
        const Config config = ReadConfig(configs, name);
        const std::vector<Night> nights = ListOwnNights(config);
        const fs::path from = fs::absolute(path).parent_path();
        if (!report::ReplaceFile(path, HistoryPage(config, nights, from)))
            throw Failure(ctar::WithReason(path));
        return static_cast<int>(Good);
    };
}

} // namespace nightly
