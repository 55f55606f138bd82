// The progress of a backup or restore under way: on a terminal a line that is redrawn in place, elsewhere a plain line
// from time to time.

#pragma once

#include <string>

#include "past_run.h"
#include "run.h"

namespace report {

// "12 of about 17 saves (as last time) | 1 failed | 2.892 MB | 1.204 MB/s | 47 s | T02 saving PAYROLL | T03 fetching
// /home" in printable ASCII, or as much of it as is in the log. `seconds` since the run started; `past` may be null.
std::string ProgressText(const LoggedRun& run, const PastRun* past, double seconds);

// The line on a terminal. The caller must not show it in the middle of a line of the log.
class ProgressLine {
public:
    // `descriptor` is a terminal; the caller keeps it open.
    explicit ProgressLine(int descriptor) : descriptor_(descriptor) {}
    ~ProgressLine() { Clear(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // Shows the text, cut to the current width of the terminal.
    void Show(const std::string& text);
    void Clear();

private:
    int descriptor_;
    bool shown_ = false;
};

} // namespace report
