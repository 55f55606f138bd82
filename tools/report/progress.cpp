#include "progress.h"

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

std::string ResultsText(const LoggedRun& run, const PastRun* past) {
    if (past != nullptr && !run.ended && past->count > 0)
        return FormatText("%llu of about %s (as last time)", static_cast<unsigned long long>(Done(run)),
                          ShowCount(past->count, run.mode).c_str());
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

std::string ProgressText(const LoggedRun& run, const PastRun* past, double seconds) {
    std::string text = ResultsText(run, past);
    if (run.Count(Outcome::Failed) > 0)
        text += FormatText(" | %llu failed", static_cast<unsigned long long>(run.Count(Outcome::Failed)));
    if (run.HasSizes()) {
        text += " | " + ShowBytes(run.bytes);
        if (seconds >= 1)
            text += " | " + ShowBytes(run.bytes / seconds) + "/s";
    }
    text += " | " + ShowDuration(static_cast<double>(static_cast<long long>(seconds)));
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
