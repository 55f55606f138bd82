#include "result.h"

#include <algorithm>

#include "text.h"

namespace report {

std::string ShowCount(std::uint64_t count, Mode mode) {
    return FormatText("%llu %s", static_cast<unsigned long long>(count),
                      count == 1 ? UnitName(mode) : PluralUnitName(mode));
}

const char* UnitName(Mode mode) {
    return mode == Mode::Restore ? "entry" : "save";
}

const char* PluralUnitName(Mode mode) {
    return mode == Mode::Restore ? "entries" : "saves";
}

const char* OutcomeName(Outcome outcome, Mode mode) {
    static constexpr const char* backup[OutcomeCount] = {"saved",  "saved in part", "no data",
                                                         "failed", "not found",     "not restored"};
    static constexpr const char* restore[OutcomeCount] = {"restored", "restored in part", "no data",
                                                          "failed",   "not found",        "not restored"};
    return (mode == Mode::Restore ? restore : backup)[static_cast<std::size_t>(outcome)];
}

bool IsMissing(Outcome outcome) {
    return outcome != Outcome::Saved && outcome != Outcome::NotRestored;
}

std::optional<double> Result::PhaseSeconds() const {
    if (!save_seconds && !wait_seconds && !transfer_seconds && !restore_seconds)
        return std::nullopt;
    return save_seconds.value_or(0) + wait_seconds.value_or(0) + transfer_seconds.value_or(0) +
           restore_seconds.value_or(0);
}

double DurationOf(const Result& result) {
    return result.end - result.start;
}

double BytesOf(const Result& result) {
    return result.bytes.value_or(0);
}

void KeepGreatest(std::vector<Result>& heap, std::size_t most, const Result& result, Measure measure) {
    const auto greater = [measure](const Result& one, const Result& other) { return measure(one) > measure(other); };
    if (heap.size() == most) {
        if (measure(result) <= measure(heap.front()))
            return;
        std::pop_heap(heap.begin(), heap.end(), greater);
        heap.pop_back();
    }
    heap.push_back(result);
    std::push_heap(heap.begin(), heap.end(), greater);
}

std::vector<Result> Ranked(std::vector<Result> results, Measure measure) {
    std::sort(results.begin(), results.end(), [measure](const Result& one, const Result& other) {
        const double left = measure(one), right = measure(other);
        return left != right ? left > right : one.start < other.start;
    });
    return results;
}

} // namespace report
