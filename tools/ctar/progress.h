// A bar on standard error, while that is a terminal, of how far an archive has been read.

#pragma once

#include <cstdint>

class Progress {
public:
    explicit Progress(std::int64_t total); // bytes, -1 when unknown
    ~Progress() { Clear(); }
    void Show(std::int64_t done); // redraws now and then
    void Clear();                 // takes the bar away, so that lines can be written

private:
    std::int64_t total_;
    bool terminal_;
    bool drawn_ = false;
    double next_ = 0; // when to draw again
};
