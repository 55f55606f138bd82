#include "progress.h"

#include <algorithm>
#include <cmath>

#include <sys/ioctl.h>

#include "display.h"
#include "resources.h"
#include "text.h"

namespace report {

namespace {

// A worker's latest save is done although its measurements may still follow; a pending entry is not done.
std::uint64_t Done(const LoggedRun& run) {
    std::uint64_t done = run.Results();
    for (const auto& [thread, worker] : run.workers)
        done += worker.pending && run.mode != Mode::Restore ? 1 : 0;
    return done;
}

// Bytes so far. Until the listing is over, the file may still be that of an earlier run.
std::optional<double> BytesSoFar(const LoggedRun& run, const Progress& progress) {
    if (run.mode == Mode::Backup && run.listed && progress.archive)
        return std::max(*progress.archive, run.bytes);
    return run.HasSizes() ? std::optional(run.bytes) : std::nullopt;
}

// The part of the run that is done, from 0 to 1; by bytes where they are known. Nothing when the run has come to more
// than expected, or nothing is expected.
std::optional<double> PartDone(const LoggedRun& run, const Progress& progress) {
    const Expectation& expected = progress.expected;
    const std::optional<double> bytes = BytesSoFar(run, progress);
    std::optional<double> part;
    if (bytes && expected.bytes > 0)
        part = *bytes / expected.bytes;
    else if (expected.results > 0)
        part = static_cast<double>(Done(run)) / static_cast<double>(expected.results);
    return part && *part < 1 ? part : std::nullopt;
}

// Seconds left: what the last run took for the rest, and more and more what this one would take at its own pace.
double SecondsLeft(double part, const Progress& progress) {
    constexpr double least = 0.05; // of the run, to have a pace
    const double last = progress.expected.seconds;
    if (part < least)
        return last - progress.seconds;
    const double own = progress.seconds * (1 - part) / part;
    return (1 - part) * (1 - part) * last + part * own;
}

std::string ForecastText(const LoggedRun& run, const Progress& progress) {
    const std::optional<double> part = PartDone(run, progress);
    if (!part || run.ended)
        return {};
    std::string text = FormatText("%.0f %% | ", std::floor(*part * 100));
    const double left = progress.expected.seconds > 0 ? SecondsLeft(*part, progress) : 0;
    if (left >= 1)
        text += "about " + ShowDuration(std::floor(left)) + " left | ";
    return text;
}

std::string ResultsText(const LoggedRun& run, const Progress& progress) {
    if (!run.ended && progress.expected.results > 0)
        return FormatText("%llu of about %s", static_cast<unsigned long long>(Done(run)),
                          ShowCount(progress.expected.results, run.mode).c_str());
    return ShowCount(Done(run), run.mode);
}

std::string WorkerText(int thread, const Worker& worker) {
    if (worker.done)
        return {};
    if (!worker.doing.empty())
        return FormatText(" | T%02d ", thread) + std::string(worker.doing) + (worker.name.empty() ? "" : " ") +
               TerminalText(worker.name);
    return worker.name.empty() ? "" : FormatText(" | T%02d after ", thread) + TerminalText(worker.name);
}

} // namespace

std::string ProgressText(const LoggedRun& run, const Progress& progress) {
    std::string text = ForecastText(run, progress) + ResultsText(run, progress);
    if (run.Count(Outcome::Failed) > 0)
        text += FormatText(" | %llu failed", static_cast<unsigned long long>(run.Count(Outcome::Failed)));
    if (const std::optional<double> bytes = BytesSoFar(run, progress)) {
        text += " | " + ShowBytes(*bytes);
        if (progress.seconds >= 1)
            text += " | " + ShowBytes(*bytes / progress.seconds) + "/s";
    }
    text += " | " + ShowDuration(std::floor(progress.seconds));
    for (const auto& [thread, worker] : run.workers)
        if (thread != 0 || run.workers.size() == 1)
            text += WorkerText(thread, worker);
    return text;
}

void ProgressLine::Show(const std::string& text) {
    winsize size{};
    constexpr std::size_t usual_width = 80;
    const bool known = ::ioctl(descriptor_, TIOCGWINSZ, &size) == 0 && size.ws_col > 1;
    const std::size_t width = known ? size.ws_col : usual_width;
    std::string line = "\r";
    line.append(text, 0, width - 1).append("\x1b[K");
    shown_ = WriteSome(descriptor_, line.data(), line.size()) > 0;
}

void ProgressLine::Clear() {
    constexpr std::string_view clear = "\r\x1b[K";
    if (shown_)
        shown_ = WriteSome(descriptor_, clear.data(), clear.size()) < 0;
}

} // namespace report
