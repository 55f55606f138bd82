// ctar verify: everything about an archive that is not as a backup writes it, and data that differ from their sums.

#include "commands.h"

#include <algorithm>
#include <deque>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "digest.h"
#include "findings.h"
#include "messages.h"
#include "sum_check.h"

namespace {

struct VerifyOptions {
    std::vector<std::string> archives;
    bool json = false;
    SumCheckOptions sums;
};

// One archive under verification. Memory: 16 bytes an entry, in a deque: a vector takes three times that while it
// grows.
struct Verification {
    Input input;
    Progress progress;
    Findings findings;
    std::optional<SumCheck> sums;
    std::deque<std::pair<std::uint64_t, std::int64_t>> names; // ShortDigest of the path, offset of the header

    Verification(const VerifyOptions& options, const std::string& archive)
        : input(archive, options.sums.max_duration > 0 ? Access::Random : Access::Forward), progress(input.Size()),
          findings(archive, options.json, progress) {
        if (!options.sums.sums.empty())
            sums.emplace(options.sums, input, findings, progress);
    }
};

void CheckName(Verification& run, const Entry& entry) {
    if (!entry.name.starts_with('/'))
        run.findings.Report(FindingKinds::Name, entry.offset, entry.name, "the name is not a full path");
    if (entry.name.size() == LongestName)
        run.findings.Report(FindingKinds::NameCut, entry.offset, entry.name,
                            "a name of 400 characters, perhaps a longer one that was cut");
    run.names.emplace_back(ShortDigest(entry.Path()), entry.offset);
}

void CheckSize(Verification& run, const Entry& entry) {
    if (entry.size == 0)
        run.findings.Report(FindingKinds::Empty, entry.offset, entry.name, "an entry without data");
    else if (entry.size % RecordSize != 0)
        run.findings.Report(FindingKinds::Records, entry.offset, entry.name,
                            std::to_string(entry.size) + " bytes are not whole records of 528: a save file cut short");
}

// Passes over what is left of the data, and looks at the zeros behind them.
void CheckPadding(Verification& run, const Entry& entry) {
    run.input.Skip(entry.size - (run.input.Offset() - entry.DataOffset()));
    const std::int64_t offset = run.input.Offset();
    if (!ReadsZeroPadding(run.input, entry))
        run.findings.Report(FindingKinds::Padding, offset, entry.name, "the padding behind the data is not zero");
}

void CheckEntry(Verification& run, const Entry& entry, const CtarBlock& header) {
    run.progress.Show(entry.offset);
    CheckHeader(run.findings, entry, header);
    CheckName(run, entry);
    CheckSize(run, entry);
    if (run.sums)
        run.sums->Take(entry);
    CheckPadding(run, entry);
}

void ReportStop(Verification& run, ChainStop stop, std::int64_t offset, const std::string& name) {
    run.findings.Report({TextOf(stop).code, true}, offset, name, TextOf(stop).text);
}

// Tells what the bytes look like that no chain leads to, from the input's position to its end. Entries that the sums
// have there are compared; others may be data. Gives whether any block is a header or a sentinel.
bool CheckRest(Verification& run) {
    const std::int64_t begin = run.input.Offset();
    std::int64_t first = 0, count = 0;
    bool zero = true, good = false;
    CtarBlock block;
    while (const std::size_t held = run.input.ReadBlock(block)) {
        zero = zero && IsZero(std::span(block).first(held));
        good = good || (held == BlockSize && HasGoodChecksum(block));
        run.progress.Show(run.input.Offset());
        Entry entry;
        const std::int64_t offset = run.input.Offset() - static_cast<std::int64_t>(BlockSize);
        if (held < BlockSize || !LooksLikeHeader(block, offset, entry))
            continue;
        first = count++ == 0 ? offset : first;
        if (run.sums && run.sums->Expects(offset))
            run.sums->Take(entry);
        else if (run.sums)
            continue;
        const std::int64_t left = RoundToBlocks(entry.size) - (run.input.Offset() - entry.DataOffset());
        if (run.input.Skip(left) < left && run.sums)
            ReportStop(run, ChainStop::Data, offset, entry.name);
    }
    if (run.input.Offset() == begin)
        return good;
    const std::string bytes = std::to_string(run.input.Offset() - begin) + " bytes that no restore reaches: ";
    run.findings.Report(FindingKinds::Unreached, begin, "",
                        bytes + (count > 0 ? Counted(count, "entry", "entries") + ", the first at " + OffsetText(first)
                                 : zero    ? "zeros"
                                 : run.input.IsUnderWay() ? "the data of the backup under way"
                                                          : "the data of a broken retrieval, or junk"));
    return good;
}

// The names of suspects are read again where the input allows it.
void CheckDuplicates(Verification& run) {
    std::sort(run.names.begin(), run.names.end());
    std::vector<std::pair<std::int64_t, std::int64_t>> duplicates; // offsets of the header and of the one before
    for (std::size_t i = 1; i < run.names.size(); ++i)
        if (run.names[i].first == run.names[i - 1].first)
            duplicates.emplace_back(run.names[i].second, run.names[i - 1].second);
    std::sort(duplicates.begin(), duplicates.end());
    for (const auto& [offset, before] : duplicates) {
        CtarBlock block{};
        if (run.input.IsSeekable())
            run.input.ReadBlockAt(offset, block);
        run.findings.Report(FindingKinds::Duplicate, offset, ReadCtarName(block),
                            "the name stands before already, at " + OffsetText(before));
    }
}

int VerifyOne(const VerifyOptions& options, const std::string& archive) {
    Verification run(options, archive);
    const ChainEnd end =
        WalkEntries(run.input, [&run](const Entry& entry, const CtarBlock& header) { CheckEntry(run, entry, header); });
    if (end.stop != ChainStop::Sentinel)
        ReportStop(run, end.stop, end.offset, end.Name());
    else if (end.block != BuildCtarSentinel())
        run.findings.Report(FindingKinds::Header, end.offset, "", "the sentinel is not as a backup writes it");
    if (run.sums && end.stop != ChainStop::Sentinel)
        run.sums->PassFault(end.offset);
    const bool whole = end.stop != ChainStop::PartBlock;
    const bool good = CheckRest(run) || !run.names.empty() || (whole && HasGoodChecksum(end.block));
    CheckDuplicates(run);
    const Compared compared = run.sums ? run.sums->Finish() : Compared{};
    const Cure cure = run.input.IsUnderWay() ? Cure::Wait : good ? Cure::Salvage : Cure::Nothing;
    return run.findings.Finish(static_cast<std::int64_t>(run.names.size()), compared, cure);
}

int Verify(const VerifyOptions& options) {
    if (options.archives.size() > 1 && !options.sums.sums.empty())
        throw Failure("--sums: is for one archive at a time");
    int status = AllWell;
    for (const std::string& archive : options.archives)
        try {
            status = std::max(status, VerifyOne(options, archive));
        } catch (const Failure& failure) {
            Complain(failure.what());
            status = CannotWork;
        }
    return status;
}

// As CLI::Range, which lets nan pass and writes out a limit of 300 digits.
CLI::Validator Within(double least, double most, const std::string& meaning) {
    const auto check = [=](std::string& text) {
        double number;
        const bool within = CLI::detail::lexical_cast(text, number) && number >= least && number <= most;
        return within ? std::string() : text + " is not " + meaning;
    };
    return CLI::Validator(check, "");
}

} // namespace

Action DeclareVerify(CLI::App& command) {
    static VerifyOptions options;
    const std::map<std::string, double> seconds{{"s", 1}, {"m", 60}, {"h", 3600}};
    command.add_option("ARCHIVE", options.archives, "the archives, - for standard input")->required();
    command.add_flag("--json", options.json, "one JSON object a line");
    CLI::Option* const sums =
        command.add_option("--sums", options.sums.sums, "compare the data with this file of \"ctar sum\"")
            ->type_name("FILE");
    command.add_option("--sample", options.sums.sample, "read the data of N% of the entries, chosen at random")
        ->type_name("N%")
        ->transform([](std::string text) { return text.ends_with('%') ? text.substr(0, text.size() - 1) : text; })
        ->check(Within(0, 100, "a number from 0 to 100"))
        ->needs(sums);
    command
        .add_option("--max-duration", options.sums.max_duration,
                    "read data for so long at most, in random order: seconds, or with s, m or h behind the number")
        ->type_name("DURATION")
        ->transform(CLI::AsNumberWithUnit(seconds))
        ->check(Within(1e-9, 1e9, "a time from a nanosecond to 30 years"))
        ->needs(sums);
    CLI::Option* const seed =
        command.add_option("--seed", options.sums.seed, "make the same choice for the same number")
            ->check(Within(0, 0x1p63, "a number from 0 to 2^63"))
            ->needs(sums);
    return [seed] {
        if (seed->count() == 0)
            options.sums.seed = std::random_device{}();
        return Verify(options);
    };
}
