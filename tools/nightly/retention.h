// Which nights keep their archives, and which their records: a pure function of nights and clock.
//
// True at every moment: the night of this run stays; a night that lies in the future removes nothing; the newest good
// copy of every object stays, as long as the object was seen on the server within `forget_after`; a night stays while a
// later one builds on it; a failed night stays while it is the best since the last good one.

#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "config.h"
#include "moments.h"

namespace nightly {

struct RetainedNight {
    std::time_t moment = 0;
    bool good = false;
    bool has_archive = false;
    bool foreign = false;              // copied or renamed by hand
    bool tonight = false;              // of this run
    std::time_t archive_gone = 0;      // when retention removed its archives; 0 when it did not
    std::optional<std::time_t> base{}; // the night that it builds on
    CalendarUnits units{};             // of its moment, in the server's time zone
    std::uint64_t objects = 0;         // that a failed night saved, to compare it with others
    std::uint64_t newest_copies = 0;   // objects of which it has the newest copy, see copies.h
    std::string example{};             // one of these
};

struct Decision {
    bool keep = false;
    std::vector<std::string> reasons; // why it stays; why it goes
};

// Tells how long ago a night was, by the clock and by the nights since: a clock that jumps forward makes nothing old.
class NightClock {
public:
    // `moments` of all nights, in the order in which they ran.
    NightClock(std::time_t now, const std::vector<std::time_t>& moments);

    // Whether a night is longer ago than `span` seconds: by the clock, and by the nights since, between any two of
    // which no more than a week is believed to have passed.
    bool IsLongAgo(std::time_t moment, std::int64_t span) const;

private:
    std::time_t now_;
    std::map<std::time_t, std::int64_t> believed_; // seconds from each night to now
};

// Decides for each night whether its archives stay. Requires: ascending moments.
std::vector<Decision> DecideRetention(const std::vector<RetainedNight>& nights, const KeepRules& rules,
                                      std::time_t now);

// The nights without archives whose records go, too: indices.
std::vector<std::size_t> FindOldRecords(const std::vector<RetainedNight>& nights, const KeepRules& rules,
                                        std::time_t now, const NightClock& clock);

} // namespace nightly
