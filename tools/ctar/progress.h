// A progress bar on standard error, shown only if that is a terminal: how much of an archive has been read.

#pragma once

#include <cstdint>

namespace ctar {

class Progress {
public:
    explicit Progress(std::int64_t total); // bytes, -1 if unknown
    ~Progress() { Clear(); }
    void Show(std::int64_t done); // redraws a few times per second
    void Clear();                 // removes the bar, so that lines can be printed

private:
    std::int64_t total_;
    bool is_terminal_;
    bool is_drawn_ = false;
    double next_ = 0; // when to draw again, as SecondsNow()
};

} // namespace ctar
