// What a running backup or restore is at, in one line: on a terminal a line that is redrawn in place, elsewhere a plain
// line from time to time.

#pragma once

#include <string>

#include "past_run.h"
#include "run.h"

// "12 of about 17 objects | 1 failed | 2.892 MB | 1.204 MB/s | 47 s | T02 saving PAYROLL | T03 fetching /home", as much
// of it as the log tells, in printable ASCII. `seconds` since the run began; `past` may be null.
std::string ProgressText(const LoggedRun& run, const PastRun* past, double seconds);

// The line on a terminal. Nothing is shown in the middle of a line of the log.
class ProgressLine {
public:
    // `descriptor` is a terminal and stays the caller's.
    explicit ProgressLine(int descriptor) : descriptor_(descriptor) {}
    ~ProgressLine() { Clear(); }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    // Shows the text, cut to the terminal's width at this moment.
    void Show(const std::string& text);
    void Clear();

private:
    int descriptor_;
    bool shown_ = false;
};
