#include "sum_check.h"

#include <algorithm>

#include "digest.h"
#include "messages.h"
#include "support.h"

namespace ctar {

SumCheck::SumCheck(const SumCheckOptions& options, Input& input, Findings& findings, Progress& progress)
    : options_(options), input_(input), findings_(findings), progress_(progress), sums_(options.sums),
      random_(options.seed), compared_{.is_active = true} {}

void SumCheck::ConsumeLine() {
    ++compared_.all_entries;
    compared_.all_bytes += sums_.Current()->size;
    sums_.Advance();
}

void SumCheck::ReportMissing() {
    const SumLine& line = *sums_.Current();
    findings_.Report(FindingKinds::Missing, line.offset, line.name,
                     line.offset < fault_ ? "in the sums, but not in the archive"
                                          : "in the sums, but not found: see the fault at " + FormatOffset(fault_));
    ConsumeLine();
}

bool SumCheck::Expects(std::int64_t offset) {
    while (sums_.Current() && sums_.Current()->offset < offset)
        ReportMissing();
    return sums_.Current() && sums_.Current()->offset == offset;
}

void SumCheck::Compare(const Entry& entry) {
    if (!Expects(entry.offset)) {
        findings_.Report(FindingKinds::Additional, entry.offset, entry.name, "in the archive, but not in the sums");
        return;
    }
    const SumLine line = *sums_.Current();
    ConsumeLine();
    if (line.name != entry.name || line.size != entry.size)
        findings_.Report(FindingKinds::Differs, entry.offset, entry.name,
                         "the sums have " + Escape(line.name) + " here, " + std::to_string(line.size) + " bytes");
    else if (std::uniform_real_distribution<>(0, 100)(random_) >= options_.sample)
        return;
    else if (options_.max_duration > 0)
        deferred_.push_back({entry.offset, line.position});
    else
        CompareData(entry, line);
}

bool SumCheck::IsTimeUp() const {
    return options_.max_duration > 0 && SecondsNow() - start_ > options_.max_duration;
}

// An entry whose data are cut short counts as not compared, since the walk reports it; so does one during which time
// runs out.
void SumCheck::CompareData(const Entry& entry, const SumLine& line) {
    Digest digest;
    const std::int64_t done = ReadData(input_, entry, [&](std::span<const char> bytes) {
        digest.Add(bytes);
        progress_.Show(options_.max_duration > 0 ? compared_.bytes : input_.Offset());
        compared_.bytes += static_cast<std::int64_t>(bytes.size());
        return !IsTimeUp();
    });
    if (done < entry.size)
        return;
    ++compared_.entries;
    if (digest.Hex() != line.digest)
        findings_.Report(FindingKinds::Differs, entry.offset, entry.name, "the data differ from the sums");
}

Compared SumCheck::Finish() {
    while (sums_.Current())
        ReportMissing();
    std::shuffle(deferred_.begin(), deferred_.end(), random_);
    start_ = SecondsNow();
    for (const Deferred& deferred : deferred_) {
        if (IsTimeUp())
            break;
        CtarBlock block{};
        input_.Seek(deferred.offset);
        input_.ReadBlock(block);
        CompareData(ReadEntry(block, deferred.offset), sums_.LineAt(deferred.line));
    }
    return compared_;
}

} // namespace ctar
