#include "recovery_pace.h"

#include <algorithm>

#include <poll.h>

#include "support.h"

namespace {

constexpr int WithoutPause = 20; // recoveries
constexpr int LongestPause = 60; // seconds

int PauseBefore(int recovery) {
    constexpr int doublings = 6; // to 64 seconds
    const int paused = recovery - WithoutPause;
    return paused < 0 ? 0 : std::min(1 << std::min(paused, doublings), LongestPause);
}

} // namespace

bool AwaitRecovery(RecoveryPace& pace, int timeout) {
    if (pace.recoveries == 0)
        pace.first = SecondsNow();
    for (int second = PauseBefore(pace.recoveries); second > 0 && TerminationRequested == 0; --second)
        ::poll(nullptr, 0, 1000);
    ++pace.recoveries;
    return TerminationRequested == 0 && SecondsNow() - pace.first < timeout * 60.0;
}
