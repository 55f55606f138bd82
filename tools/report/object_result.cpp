#include "object_result.h"

#include <algorithm>

const char* OutcomeName(ObjectOutcome outcome, Mode mode) {
    static constexpr const char* backup[OutcomeCount] = {"saved",  "saved in part", "no data",
                                                         "failed", "not found",     "left out"};
    static constexpr const char* restore[OutcomeCount] = {"restored", "restored in part", "no data",
                                                          "failed",   "not found",        "not restored"};
    return (mode == Mode::Restore ? restore : backup)[static_cast<std::size_t>(outcome)];
}

bool IsMissing(ObjectOutcome outcome) {
    return outcome != ObjectOutcome::Saved && outcome != ObjectOutcome::LeftOut;
}

std::optional<double> ObjectResult::Measured() const {
    if (!save && !wait && !transfer && !restore)
        return std::nullopt;
    return save.value_or(0) + wait.value_or(0) + transfer.value_or(0) + restore.value_or(0);
}

double SpanOf(const ObjectResult& object) {
    return object.ended - object.begun;
}

double BytesOf(const ObjectResult& object) {
    return object.bytes.value_or(0);
}

void KeepGreatest(std::vector<ObjectResult>& heap, std::size_t most, const ObjectResult& object, Measure measure) {
    const auto greater = [measure](const ObjectResult& one, const ObjectResult& other) {
        return measure(one) > measure(other);
    };
    if (heap.size() == most) {
        if (measure(object) <= measure(heap.front()))
            return;
        std::pop_heap(heap.begin(), heap.end(), greater);
        heap.pop_back();
    }
    heap.push_back(object);
    std::push_heap(heap.begin(), heap.end(), greater);
}

std::vector<ObjectResult> Ranked(std::vector<ObjectResult> objects, Measure measure) {
    std::sort(objects.begin(), objects.end(), [measure](const ObjectResult& one, const ObjectResult& other) {
        const double left = measure(one), right = measure(other);
        return left != right ? left > right : one.begun < other.begun;
    });
    return objects;
}
