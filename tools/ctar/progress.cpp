#include "progress.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include <unistd.h>

#include "support.h"

namespace ctar {

namespace {

constexpr double Interval = 0.2; // seconds between two drawings
constexpr int Width = 40;        // characters of the bar

} // namespace

Progress::Progress(std::int64_t total) : total_(total), is_terminal_(::isatty(STDERR_FILENO) != 0) {}

void Progress::Show(std::int64_t done) {
    if (!is_terminal_ || SecondsNow() < next_)
        return;
    next_ = SecondsNow() + Interval;
    is_drawn_ = true;
    const double gibibytes = static_cast<double>(done) / (1 << 30);
    if (total_ <= 0) {
        std::fprintf(stderr, "\r%10.2f GiB", gibibytes);
        return;
    }
    const double share = std::min(1.0, static_cast<double>(done) / static_cast<double>(total_));
    const std::string bar(static_cast<std::size_t>(share * Width), '#');
    std::fprintf(stderr, "\r[%-*s] %3.0f %% %10.2f GiB", Width, bar.c_str(), share * 100, gibibytes);
}

void Progress::Clear() {
    if (is_drawn_)
        std::fputs("\r\033[K", stderr);
    is_drawn_ = false;
}

} // namespace ctar
