#include "sum_check.h"

#include <algorithm>

#include "digest.h"
#include "messages.h"

SumCheck::SumCheck(const SumCheckOptions& options, Input& input, Findings& findings, Progress& progress)
    : options_(options), input_(input), findings_(findings), progress_(progress), sums_(options.sums),
      random_(options.seed), compared_{.active = true} {}

void SumCheck::TakeLine() {
    ++compared_.all_entries;
    compared_.all_bytes += sums_.Head()->size;
    sums_.Next();
}

void SumCheck::ReportMissing() {
    const SumLine& line = *sums_.Head();
    findings_.Report(FindingKinds::Missing, line.offset, line.name,
                     line.offset < fault_ ? "in the sums, but not in the archive"
                                          : "in the sums, but not found: see the fault at " + OffsetText(fault_));
    TakeLine();
}

bool SumCheck::Expects(std::int64_t offset) {
    while (sums_.Head() && sums_.Head()->offset < offset)
        ReportMissing();
    return sums_.Head() && sums_.Head()->offset == offset;
}

void SumCheck::Take(const Entry& entry) {
    if (!Expects(entry.offset)) {
        findings_.Report(FindingKinds::Additional, entry.offset, entry.name, "in the archive, but not in the sums");
        return;
    }
    const SumLine line = *sums_.Head();
    TakeLine();
    if (line.name != entry.name || line.size != entry.size)
        findings_.Report(FindingKinds::Differs, entry.offset, entry.name,
                         "the sums have " + Escape(line.name) + " here, " + std::to_string(line.size) + " bytes");
    else if (std::uniform_real_distribution<>(0, 100)(random_) >= options_.sample)
        return;
    else if (options_.max_duration > 0)
        waiting_.push_back({entry.offset, line.position});
    else
        CompareData(entry, line);
}

bool SumCheck::IsTimeUp() const {
    return options_.max_duration > 0 && SecondsNow() - begun_ > options_.max_duration;
}

// An entry whose data are cut off counts as not compared: the walk reports it. One that time runs out in likewise.
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
        findings_.Report(FindingKinds::Differs, entry.offset, entry.name, "the data are not those of the sums");
}

Compared SumCheck::Finish() {
    while (sums_.Head())
        ReportMissing();
    std::shuffle(waiting_.begin(), waiting_.end(), random_);
    begun_ = SecondsNow();
    for (const Waiting& waiting : waiting_) {
        if (IsTimeUp())
            break;
        CtarBlock block{};
        input_.Seek(waiting.offset);
        input_.ReadBlock(block);
        CompareData(ReadEntry(block, waiting.offset), sums_.LineAt(waiting.line));
    }
    return compared_;
}
