#include "timeline.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "display.h"
#include "text.h"

namespace report {

namespace {

// Lengths in SVG units.
constexpr double Left = 56; // room for the workers' names
constexpr double Width = 960;
constexpr double RowHeight = 34;
constexpr double BarHeight = 20;
constexpr double ShortestBar = 1.5; // still visible
constexpr double ShortestMissing = 3;

struct Scale {
    double seconds = 0; // of the full width
    double At(double moment) const { return Left + moment / seconds * Width; }
};

// The distance between ticks, at most eight in `seconds`: 1, 2 or 5 times a power of ten; from a minute on, a step in
// which people read clocks.
double TickStep(double seconds) {
    constexpr double most = 8;
    for (const double step :
         {60.0, 120.0, 300.0, 600.0, 900.0, 1800.0, 3600.0, 7200.0, 14400.0, 21600.0, 43200.0, 86400.0})
        if (seconds >= most * 30 && seconds / step <= most)
            return step;
    double step = std::pow(10, std::floor(std::log10(seconds / most)));
    for (const double factor : {2.0, 2.5, 2.0})
        if (seconds / step > most)
            step *= factor;
    return step;
}

std::string TickText(const LoggedRun& run, double moment, double step) {
    if (step < 1)
        return moment == 0 ? ShowTime(run.clock.first) : FormatText("+%.4g s", moment);
    return ShowTime(run.clock.first + moment);
}

std::string Axis(const LoggedRun& run, const Scale& scale, double height) {
    std::string svg;
    const double step = TickStep(scale.seconds);
    for (int i = 0; i * step <= scale.seconds; ++i) {
        const double x = scale.At(i * step);
        svg += FormatText("<line class=\"tick\" x1=\"%.1f\" x2=\"%.1f\" y1=\"0\" y2=\"%.0f\"/>"
                          "<text class=\"axis\" x=\"%.1f\" y=\"%.0f\">%s</text>",
                          x, x, height, x + 3, height + 12, TickText(run, i * step, step).c_str());
    }
    return svg;
}

std::string Bar(const char* style, double from, double to, double y) {
    return FormatText("<rect class=\"%s\" x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.0f\"/>", style, from, y,
                      to - from, BarHeight);
}

struct Phase {
    const char* style;
    std::optional<double> Result::*seconds;
};
constexpr Phase Phases[] = {{"save", &Result::save_seconds},
                            {"wait", &Result::wait_seconds},
                            {"transfer", &Result::transfer_seconds},
                            {"restore", &Result::restore_seconds}};

std::string Tooltip(const LoggedRun& run, const Result& result) {
    std::string text = HtmlText(result.name) + "\n" + OutcomeName(result.outcome, run.mode);
    if (result.bytes)
        text += ", " + ShowBytes(*result.bytes);
    for (const Phase& phase : Phases)
        if (result.*phase.seconds)
            text += FormatText("\n%s %s", phase.style, ShowDuration(*(result.*phase.seconds)).c_str());
    return "<title>" + text + "</title>";
}

std::string ResultBars(const LoggedRun& run, const Result& result, const Scale& scale, double y) {
    std::string svg = "<g>" + Tooltip(run, result);
    const double from = scale.At(result.start);
    const double to =
        std::max(scale.At(result.end), from + (IsMissing(result.outcome) ? ShortestMissing : ShortestBar));
    if (IsMissing(result.outcome) || !result.PhaseSeconds()) {
        svg += Bar(IsMissing(result.outcome) ? "missing" : "whole", from, to, y);
    } else {
        double moment = result.start;
        for (const Phase& phase : Phases) {
            const double seconds = (result.*phase.seconds).value_or(0);
            const double end = scale.At(moment + seconds);
            if (seconds > 0)
                svg += Bar(phase.style, scale.At(moment), std::max(end, scale.At(moment) + ShortestBar / 2), y);
            moment += seconds;
        }
        svg += Bar(*result.PhaseSeconds() > 0 ? "frame" : "transfer", from, to, y);
    }
    return svg + "</g>";
}

} // namespace

std::string TimelineSvg(const LoggedRun& run) {
    std::map<int, int> rows; // by thread
    Scale scale{std::max(run.clock.elapsed, run.Get(Total::RunSeconds).value_or(0))};
    for (const auto* results : {&run.longest, &run.missing})
        for (const Result& result : *results) {
            rows[result.thread] = 0;
            scale.seconds = std::max(scale.seconds, result.end);
        }
    if (rows.empty() || scale.seconds <= 0)
        return {};
    int count = 0;
    for (auto& [thread, row] : rows)
        row = count++;
    const double height = RowHeight * count + 4;
    std::string svg = FormatText("<svg viewBox=\"0 0 %.0f %.0f\" role=\"img\" aria-label=\"Workers over time\">",
                                 Left + Width + 64, height + 18) +
                      Axis(run, scale, height);
    for (const auto& [thread, row] : rows)
        svg += FormatText("<text class=\"worker\" x=\"0\" y=\"%.0f\">T%02d</text>", row * RowHeight + 22, thread);
    const auto draw = [&](const Result& result) {
        svg += ResultBars(run, result, scale, rows[result.thread] * RowHeight + 7);
    };
    for (const Result& result : run.longest)
        if (!IsMissing(result.outcome))
            draw(result);
    std::ranges::for_each(run.missing, draw); // last, so that nothing covers them
    return svg + "</svg>";
}

} // namespace report
