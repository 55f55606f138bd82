#include "retention.h"

#include <algorithm>
#include <set>

#include "text.h"

namespace nightly {

namespace {

// The decisions while they are made.
struct Retention {
    const std::vector<RetainedNight>& nights;
    const KeepRules& rules;
    std::time_t now;
    std::vector<Decision> decisions;

    void Keep(std::size_t night, std::string reason) {
        decisions[night].keep = true;
        decisions[night].reasons.push_back(std::move(reason));
    }
    bool IsFuture(std::size_t night) const { return nights[night].moment > now; }
    // Whether the night takes part in the rules.
    bool Counts(std::size_t night) const {
        return nights[night].has_archive && !nights[night].foreign && !IsFuture(night);
    }
};

void KeepSpecial(Retention& run) {
    for (std::size_t i = 0; i < run.nights.size(); ++i) {
        const RetainedNight& night = run.nights[i];
        if (night.tonight)
            run.Keep(i, "it is the night of this run");
        if (night.foreign)
            run.Keep(i, "its record belongs to a night of another name; remove it by hand if it is a copy");
        if (run.IsFuture(i))
            run.Keep(i, "its name lies in the future; check the clock");
        if (night.newest_copies > 0)
            run.Keep(i,
                     FormatText("it has the newest copy of %llu object%s, such as %s", Printable(night.newest_copies),
                                night.newest_copies == 1 ? "" : "s", MaskControls(night.example).c_str()));
    }
}

// Keeps the newest good night of each of the newest `count` units; every night is a unit when `unit` is null.
void KeepNewest(Retention& run, std::uint64_t count, std::int64_t CalendarUnits::*unit, const char* what) {
    std::set<std::int64_t> units;
    std::uint64_t kept = 0;
    for (std::size_t i = run.nights.size(); i-- > 0 && kept < count;) {
        if (!run.Counts(i) || !run.nights[i].good)
            continue;
        if (unit != nullptr && !units.insert(run.nights[i].units.*unit).second)
            continue;
        ++kept;
        run.Keep(i, FormatText("%s %llu of %llu", what, Printable(kept), Printable(count)));
    }
}

// Of the nights since the last good one, the one that saved most; the newest of equals.
void KeepBestFailed(Retention& run) {
    std::optional<std::size_t> best;
    for (std::size_t i = run.nights.size(); i-- > 0;) {
        if (!run.Counts(i))
            continue;
        if (run.nights[i].good)
            break;
        if (!best || run.nights[i].objects > run.nights[*best].objects)
            best = i;
    }
    if (best)
        run.Keep(*best, "it saved most of the nights since the last good one");
}

void KeepChains(Retention& run) {
    // From the newest to the oldest: a base is older than what builds on it, so one pass is enough.
    for (std::size_t i = run.nights.size(); i-- > 0;) {
        const RetainedNight& night = run.nights[i];
        if (!run.decisions[i].keep || !night.base || *night.base >= night.moment)
            continue;
        for (std::size_t j = i; j-- > 0 && run.nights[j].moment >= *night.base;)
            if (run.nights[j].moment == *night.base)
                run.Keep(j, NightName(night.moment) + " builds on it");
    }
}

} // namespace

NightClock::NightClock(std::time_t now, const std::vector<std::time_t>& moments) : now_(now) {
    constexpr std::int64_t most = std::int64_t{7} * 86400;
    std::int64_t sum = 0;
    std::time_t next = now;
    for (std::size_t i = moments.size(); i-- > 0; next = moments[i]) {
        sum += std::clamp<std::int64_t>(next - moments[i], 0, most);
        believed_[moments[i]] = sum;
    }
}

bool NightClock::IsLongAgo(std::time_t moment, std::int64_t span) const {
    const auto found = believed_.find(moment);
    return found != believed_.end() && now_ - moment > span && found->second > span;
}

std::vector<Decision> DecideRetention(const std::vector<RetainedNight>& nights, const KeepRules& rules,
                                      std::time_t now) {
    Retention run{nights, rules, now, std::vector<Decision>(nights.size())};
    KeepSpecial(run);
    KeepNewest(run, std::max<std::uint64_t>(rules.last, 1), nullptr, "last");
    KeepNewest(run, rules.daily, &CalendarUnits::day, "daily");
    KeepNewest(run, rules.weekly, &CalendarUnits::week, "weekly");
    KeepNewest(run, rules.monthly, &CalendarUnits::month, "monthly");
    KeepBestFailed(run);
    KeepChains(run);
    for (std::size_t i = 0; i < nights.size(); ++i)
        if (run.decisions[i].reasons.empty())
            run.decisions[i].reasons.emplace_back(
                nights[i].good ? "no rule keeps it, and it has the newest copy of nothing that was seen of late"
                               : "it is not good, and it has the newest copy of nothing that was seen of late");
    return run.decisions;
}

std::vector<std::size_t> FindOldRecords(const std::vector<RetainedNight>& nights, const KeepRules& rules,
                                        std::time_t now, const NightClock& clock) {
    std::vector<std::size_t> old;
    for (std::size_t i = 0; i < nights.size(); ++i) {
        const RetainedNight& night = nights[i];
        if (!night.has_archive && !night.foreign && !night.tonight && clock.IsLongAgo(night.moment, rules.records) &&
            now - night.archive_gone > rules.records)
            old.push_back(i);
    }
    return old;
}

} // namespace nightly
