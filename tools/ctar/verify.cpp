// ctar verify: everything in an archive that differs from what a backup writes, data that differ from their sums, and
// paths of the catalog that the archive lacks.

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

#include "catalog.h"
#include "digest.h"
#include "findings.h"
#include "messages.h"
#include "sum_check.h"
#include "text.h"

namespace ctar {

namespace {

struct VerifyOptions {
    std::vector<std::string> archives;
    bool json = false;
    SumCheckOptions sums;
    std::string catalog; // path; empty if there is none to compare with
};

// One archive being verified.
struct Verification {
    Input input;
    Progress progress;
    Findings findings;
    std::optional<SumCheck> sums;
    std::string catalog; // path, or empty
    Coverage coverage;   // of the entries, if there is a catalog
    // ShortDigest of each entry's path, and the offset of its header: 16 bytes per entry. A vector needs three times
    // the memory while it grows.
    std::deque<std::pair<std::uint64_t, std::int64_t>> names;

    Verification(const VerifyOptions& options, const std::string& archive)
        : input(archive, options.sums.max_duration > 0 ? Access::Random : Access::Forward), progress(input.Size()),
          findings(archive, options.json, progress), catalog(options.catalog) {
        if (!options.sums.sums.empty())
            sums.emplace(options.sums, input, findings, progress);
    }
};

void CheckName(Verification& run, const Entry& entry) {
    if (!entry.name.starts_with('/'))
        run.findings.Report(FindingKinds::Name, entry.offset, entry.name, "the name is not a full path");
    if (entry.name.size() == LongestName)
        run.findings.Report(FindingKinds::NameCut, entry.offset, entry.name,
                            "the name has 400 characters, the maximum, and may be cut short");
    run.names.emplace_back(ShortDigest(entry.Path()), entry.offset);
    if (!run.catalog.empty())
        run.coverage.Add(entry.Path());
}

void CheckSize(Verification& run, const Entry& entry) {
    if (entry.size == 0)
        run.findings.Report(FindingKinds::Empty, entry.offset, entry.name, "an entry without data");
    else if (entry.size % RecordSize != 0)
        run.findings.Report(FindingKinds::Records, entry.offset, entry.name,
                            std::to_string(entry.size) + " bytes, not a multiple of 528: the save file was cut short");
}

// Skips what is left of the data and checks the padding.
void CheckPadding(Verification& run, const Entry& entry) {
    run.input.Skip(entry.size - (run.input.Offset() - entry.DataOffset()));
    const std::int64_t offset = run.input.Offset();
    if (!ReadsZeroPadding(run.input, entry))
        run.findings.Report(FindingKinds::Padding, offset, entry.name, "the padding after the data is not zero");
}

void CheckEntry(Verification& run, const Entry& entry, const CtarBlock& header) {
    run.progress.Show(entry.offset);
    CheckHeader(run.findings, entry, header);
    CheckName(run, entry);
    CheckSize(run, entry);
    if (run.sums)
        run.sums->Compare(entry);
    CheckPadding(run, entry);
}

void ReportStop(Verification& run, ChainStop stop, std::int64_t offset, const std::string& name) {
    run.findings.Report({Describe(stop).code, true}, offset, name, Describe(stop).text);
}

// Reports what the bytes from the input's position to its end look like, which no chain reaches. Compares the entries
// that the sums have there; with sums, other blocks that look like headers may be data. Returns whether any block is a
// header or a sentinel.
bool CheckRest(Verification& run) {
    const std::int64_t begin = run.input.Offset();
    std::int64_t first = 0, count = 0;
    bool is_zero = true, is_good = false;
    CtarBlock block;
    while (const std::size_t length = run.input.ReadBlock(block)) {
        is_zero = is_zero && IsZero(std::span(block).first(length));
        is_good = is_good || (length == BlockSize && HasGoodChecksum(block));
        run.progress.Show(run.input.Offset());
        Entry entry;
        const std::int64_t offset = run.input.Offset() - static_cast<std::int64_t>(BlockSize);
        if (length < BlockSize || !LooksLikeHeader(block, offset, entry))
            continue;
        first = count++ == 0 ? offset : first;
        if (run.sums && run.sums->Expects(offset))
            run.sums->Compare(entry);
        else if (run.sums)
            continue;
        const std::int64_t left = RoundToBlocks(entry.size) - (run.input.Offset() - entry.DataOffset());
        if (run.input.Skip(left) < left && run.sums)
            ReportStop(run, ChainStop::Data, offset, entry.name);
    }
    if (run.input.Offset() == begin)
        return false;
    const std::string look = count > 0
                                 ? FormatCount(count, "entry", "entries") + ", the first at " + FormatOffset(first)
                             : is_zero                     ? "zeros"
                             : run.input.IsBackupRunning() ? "data of the backup in progress"
                                                           : "data of a broken retrieval, or junk";
    run.findings.Report(FindingKinds::Unreached, begin, "",
                        FormatCount(run.input.Offset() - begin, "byte", "bytes") +
                            " that a restore will not see: " + look);
    return is_good;
}

// Only digests of the names are kept. The names of duplicates are read again if the input allows it.
void CheckDuplicates(Verification& run) {
    std::sort(run.names.begin(), run.names.end());
    std::vector<std::pair<std::int64_t, std::int64_t>>
        duplicates; // offsets of the header and of the one that it repeats
    for (std::size_t i = 1; i < run.names.size(); ++i)
        if (run.names[i].first == run.names[i - 1].first)
            duplicates.emplace_back(run.names[i].second, run.names[i - 1].second);
    std::sort(duplicates.begin(), duplicates.end());
    for (const auto& [offset, earlier] : duplicates) {
        CtarBlock block{};
        if (run.input.IsSeekable())
            run.input.ReadBlockAt(offset, block);
        run.findings.Report(FindingKinds::Duplicate, offset, ReadCtarName(block),
                            "same name as the entry at " + FormatOffset(earlier));
    }
}

// Every path of the catalog must be an entry or be inside one.
void CheckCatalog(Verification& run) {
    run.coverage.Finish();
    ReadCatalog(run.catalog, [&run](std::string_view path) {
        if (!run.coverage.Covers(path))
            run.findings.Report(FindingKinds::Uncovered, run.input.Offset(), std::string(path),
                                "in the catalog, but no entry of the archive contains it");
    });
}

int VerifyOne(const VerifyOptions& options, const std::string& archive) {
    Verification run(options, archive);
    const ChainEnd end =
        WalkEntries(run.input, [&run](const Entry& entry, const CtarBlock& header) { CheckEntry(run, entry, header); });
    if (end.stop != ChainStop::Sentinel)
        ReportStop(run, end.stop, end.offset, end.Name());
    else if (end.block != BuildCtarSentinel())
        run.findings.Report(FindingKinds::Header, end.offset, "", "the sentinel differs from what a backup writes");
    if (run.sums && end.stop != ChainStop::Sentinel)
        run.sums->SetFault(end.offset);
    const bool is_whole = end.stop != ChainStop::PartBlock;
    const bool is_archive = CheckRest(run) || !run.names.empty() || (is_whole && HasGoodChecksum(end.block));
    CheckDuplicates(run);
    if (!run.catalog.empty())
        CheckCatalog(run);
    const Compared compared = run.sums ? run.sums->Finish() : Compared{};
    const Advice advice = run.input.IsBackupRunning() ? Advice::Wait : is_archive ? Advice::Salvage : Advice::None;
    return run.findings.Finish(static_cast<std::int64_t>(run.names.size()), compared, advice);
}

int Verify(const VerifyOptions& options) {
    if (options.archives.size() > 1 && !(options.sums.sums.empty() && options.catalog.empty()))
        throw Failure("--sums and --catalog: only for one archive at a time");
    int status = ExitSuccess;
    for (const std::string& archive : options.archives)
        try {
            status = std::max(status, VerifyOne(options, archive));
        } catch (const Failure& failure) {
            PrintError(failure.what());
            status = ExitError;
        }
    return status;
}

// Like CLI::Range, which accepts nan and prints a limit of 300 digits.
CLI::Validator Within(double least, double most, const std::string& meaning) {
    const auto check = [=](const std::string& text) {
        const std::optional<double> number = ParseNumber<double>(text);
        const bool is_within = number && *number >= least && *number <= most;
        return is_within ? std::string() : text + " is not " + meaning;
    };
    return CLI::Validator(check, "");
}

} // namespace

Action DeclareVerify(CLI::App& command) {
    static VerifyOptions options;
    const std::map<std::string, double> seconds{{"s", 1}, {"m", 60}, {"h", 3600}};
    command.add_option("ARCHIVE", options.archives, "the archives, - for standard input")->required();
    command.add_flag("--json", options.json, "JSON, one finding per line");
    CLI::Option* const sums =
        command.add_option("--sums", options.sums.sums, "compare the data with this output of \"ctar sum\"")
            ->type_name("FILE");
    command
        .add_option("--catalog", options.catalog,
                    "check that the archive has every path of this catalog (-C) of its run")
        ->type_name("FILE");
    command.add_option("--sample", options.sums.sample, "read the data of N% of the entries, chosen at random")
        ->type_name("N%")
        ->transform([](std::string text) { return text.ends_with('%') ? text.substr(0, text.size() - 1) : text; })
        ->check(Within(0, 100, "a number from 0 to 100"))
        ->needs(sums);
    command
        .add_option("--max-duration", options.sums.max_duration,
                    "stop reading data after this time, in seconds or with s, m or h after the number")
        ->type_name("DURATION")
        ->transform(CLI::AsNumberWithUnit(seconds))
        ->check(Within(1e-9, 1e9, "a time from a nanosecond to 30 years"))
        ->needs(sums);
    CLI::Option* const seed =
        command.add_option("--seed", options.sums.seed, "make the same random choice as other runs with this number")
            ->check(Within(0, 0x1p63, "a number from 0 to 2^63"))
            ->needs(sums);
    return [seed] {
        if (seed->count() == 0)
            options.sums.seed = std::random_device{}();
        return Verify(options);
    };
}

} // namespace ctar
