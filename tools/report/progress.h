// The progress of a backup or restore under way: on a terminal a line that is redrawn in place, elsewhere a plain line
// from time to time.

#pragma once

#include <optional>
#include <string>

#include "run.h"
#include "run_context.h"

namespace report {

// What the line says beyond the log.
struct Progress {
    double seconds = 0;            // since the run started
    std::optional<double> archive; // current size of the archive file in bytes: it grows while an object is fetched
    Expectation expected;
};

// "62 % | about 3:10 left | 12 of about 17 saves | 1 failed | 2.892 MB | 1.204 MB/s | 47 s | T02 saving PAYROLL | T03
// fetching /home" in printable ASCII, or as much of it as is known.
std::string ProgressText(const LoggedRun& run, const Progress& progress);

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
