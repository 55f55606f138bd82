#include "judge.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <optional>
#include <unordered_set>

#include <fcntl.h>

#include "ctar/messages.h"
#include "failure.h"
#include "moments.h"
#include "path_file.h"
#include "report/log_reader.h"
#include "resources.h"
#include "text.h"

namespace nightly {

namespace {

std::string In(const std::string& directory, const std::string& name) {
    return directory + "/" + name;
}

// The lines of a catalog or of a list of what was missed. The last line of a run that was killed may be cut short.
std::vector<std::string> ReadLines(const std::string& path) {
    std::vector<std::string> lines;
    if (!Exists(path))
        return lines;
    try {
        ctar::ReadCatalog(path, [&lines](std::string_view line) { lines.emplace_back(line); });
    } catch (const Failure&) {
        // Whatever follows an unreadable line counts as not saved.
    }
    return lines;
}

} // namespace

void RequireReadable(const std::string& path) {
    if (Exists(path))
        ctar::ReadCatalog(path, [](std::string_view) {});
}

MissedLine ParseMissed(std::string_view text) {
    constexpr std::string_view counted = " objects not saved";
    MissedLine line{std::string(text), std::string(text)};
    const std::size_t colon = text.rfind(": ");
    if (colon == text.npos)
        return line;
    std::string_view rest = text.substr(colon + 2);
    const std::optional<std::uint64_t> count = ConsumeNumber<std::uint64_t>(rest);
    if (count && rest == counted)
        return {std::string(text.substr(0, colon)), line.text, true, std::max<std::uint64_t>(*count, 1)};
    // "/QSYS.LIB/PAYROLL.LIB: 550 No objects saved or restored for library PAYROLL.."
    const std::size_t reply = text.find(": 5");
    if (text.starts_with("/QSYS.LIB/") && reply != text.npos)
        return {std::string(text.substr(0, reply)), line.text, true, 1};
    return line;
}

std::vector<MissedLine> ReadMissed(const std::string& path) {
    std::vector<MissedLine> missed;
    for (const std::string& line : ReadLines(path))
        missed.push_back(ParseMissed(line));
    return missed;
}

std::string IncludeFileOf(const std::string& directory, int retry) {
    return In(directory, AttemptFile("include", retry));
}

bool IsPartialRetry(const std::string& directory, int retry) {
    return retry > 0 && Exists(IncludeFileOf(directory, retry));
}

int WholeAttemptOf(const Night& night) {
    int retry = night.record->retries;
    while (IsPartialRetry(night.path, retry))
        --retry;
    return retry;
}

std::string WholeLogOf(const Night& night) {
    return night.File(AttemptFile(NightFiles::Log, WholeAttemptOf(night)));
}

namespace {

// What one attempt left.
struct AttemptFacts {
    bool partial = false; // it saved only what had been missed before
    bool complete = false;
    bool terminated = false;
    bool fatal = false; // a message says that the run itself failed
    std::uint64_t attempted = 0, parse_errors = 0;
    std::multiset<std::string> not_found; // include lines, as shown in the log
    std::string message;                  // the last failure message of the run itself
};

std::uint64_t AsCount(std::optional<double> total) {
    return total && *total > 0 ? static_cast<std::uint64_t>(std::llround(*total)) : 0;
}

// The last message of vondral-tls in a log says more than that of vondral, for which only a connection was lost.
void FindRelayMessage(const std::string& log, std::string& message) {
    constexpr std::size_t longest = 65536;
    const Stream stream(std::fopen(log.c_str(), "re"));
    for (std::string line; stream != nullptr && ReadLine(stream.get(), longest, line);)
        if (line.starts_with("vondral-tls: "))
            message = line.substr(0, line.find('\n'));
}

AttemptFacts ReadAttempt(const std::string& directory, int retry) {
    AttemptFacts facts;
    facts.partial = IsPartialRetry(directory, retry);
    const Descriptor log(::open(In(directory, AttemptFile(NightFiles::Log, retry)).c_str(), O_RDONLY | O_CLOEXEC));
    report::LoggedRun run;
    run.on_result = [&facts](const report::LoggedRun&, const report::Result& result) {
        if (result.outcome == report::Outcome::NotFound)
            facts.not_found.insert(result.name);
    };
    if (!log.IsOpen() || report::ReadRun(log.Get(), run) != 0)
        return facts;
    facts.complete = run.complete && run.ended;
    facts.terminated = run.terminated;
    facts.fatal = run.fatal;
    facts.attempted = AsCount(run.Get(report::Total::Attempted));
    facts.parse_errors = AsCount(run.Get(report::Total::ParsingErrors));
    if (!run.messages.empty())
        facts.message = run.messages.back();
    if (!facts.complete)
        FindRelayMessage(In(directory, AttemptFile(NightFiles::Log, retry)), facts.message);
    return facts;
}

std::vector<std::string> ReadIncludeLines(const std::string& path) {
    std::vector<std::string> lines;
    std::string line;
    const Stream include(std::fopen(path.c_str(), "re"));
    while (include != nullptr && ReadPathLine(line, include.get()))
        lines.push_back(line);
    return lines;
}

// What is missed after a retry that saved only some paths: what it says, and whatever else its archive does not have.
// A retry may have died, and vondral passes over a path that is a pattern by its characters.
void ApplyPartialRetry(std::vector<MissedLine>& missed, const std::vector<std::string>& tried,
                       const std::vector<MissedLine>& again, const ctar::Coverage& archive) {
    std::set<std::string> open(tried.begin(), tried.end());
    std::erase_if(missed, [&open](const MissedLine& line) { return open.contains(line.path); });
    for (const MissedLine& line : again) {
        missed.push_back(line);
        open.erase(line.path);
    }
    for (const std::string& path : open)
        if (!archive.Covers(path))
            missed.push_back({path, path});
}

// Everything that the attempts of a night come to.
struct NightSum {
    AttemptFacts whole; // of the last attempt at the whole night
    bool ran_to_end = false;
    std::size_t not_found = 0; // in the last attempt
    std::vector<MissedLine> missed;
    std::vector<std::string> lines; // of all catalogs; those of a retry only when they are new
    std::vector<std::string> archives;
    std::vector<std::string> faults; // archives that are not sound
    ctar::Coverage coverage;
    std::vector<std::uint64_t> archive_bytes;    // the sizes of these archives
    std::map<std::string, std::int64_t> entries; // bytes of data; a retry may have saved an entry again
};

// A line that two include lines name counts twice, as it does among the files attempted.
void AddCatalog(NightSum& sum, std::vector<std::string> lines, std::unordered_set<std::string>& known) {
    std::erase_if(lines, [&known](const std::string& line) { return known.contains(line); });
    known.insert(lines.begin(), lines.end());
    std::move(lines.begin(), lines.end(), std::back_inserter(sum.lines));
}

// What an attempt at the whole night missed. Takes those names out of what was not found that are in the base.
std::vector<MissedLine> MissedByWhole(std::vector<MissedLine> missed, AttemptFacts& facts, const JudgeRules& rules) {
    std::erase_if(missed, [&](const MissedLine& line) {
        const auto found = facts.not_found.find(MaskControls(line.text));
        if (found == facts.not_found.end() || !rules.is_in_base || !rules.is_in_base(line.text))
            return false;
        facts.not_found.erase(found);
        return true;
    });
    std::set<std::string> named;
    for (const MissedLine& line : missed)
        named.insert(line.path);
    std::copy_if(rules.carried.begin(), rules.carried.end(), std::back_inserter(missed),
                 [&named](const MissedLine& line) { return named.insert(line.path).second; });
    return missed;
}

// `own` receives the entries of this archive alone.
void AddArchive(NightSum& sum, const std::string& directory, const std::string& name, ctar::Coverage& own) {
    if (!Exists(In(directory, name)))
        return;
    const ArchiveContents contents = ReadArchive(In(directory, name), Digests::Skip);
    if (!contents.fault.empty()) {
        sum.faults.push_back(name + ": " + contents.fault);
        return;
    }
    sum.archives.push_back(name);
    sum.archive_bytes.push_back(std::filesystem::file_size(In(directory, name)));
    for (const EntryFacts& entry : contents.entries) {
        sum.coverage.Add(entry.path);
        own.Add(entry.path);
        sum.entries[entry.path] = entry.size;
    }
}

NightSum SumUp(const std::string& directory, int retries, const JudgeRules& rules) {
    NightSum sum;
    std::unordered_set<std::string> known;
    for (int retry = 0; retry <= retries; ++retry) {
        AttemptFacts facts = ReadAttempt(directory, retry);
        AddCatalog(sum, ReadLines(In(directory, AttemptFile(NightFiles::Catalog, retry))), known);
        ctar::Coverage own;
        AddArchive(sum, directory, AttemptFile(NightFiles::Archive, retry), own);
        own.Finish();
        std::vector<MissedLine> missed = ReadMissed(In(directory, AttemptFile(NightFiles::Missed, retry)));
        if (facts.partial) {
            ApplyPartialRetry(sum.missed, ReadIncludeLines(IncludeFileOf(directory, retry)), missed, own);
        } else {
            sum.missed = MissedByWhole(std::move(missed), facts, rules);
            sum.whole = facts;
            sum.ran_to_end = sum.ran_to_end || facts.complete;
        }
        sum.not_found = facts.not_found.size();
    }
    sum.coverage.Finish();
    return sum;
}

// Counts the files that are missing, and adds the lines of the catalog that no archive contains to what is missed.
void CountFiles(NightSum& sum, NightRecord& record) {
    for (const std::string& line : sum.lines)
        if (sum.coverage.Covers(line))
            ++record.objects;
        else
            sum.missed.push_back({line, line});
    record.catalog_is_covered = record.objects == sum.lines.size();
    std::uint64_t names = 0, parts = 0;
    std::set<std::string> counted;
    for (const MissedLine& line : sum.missed)
        if (line.in_part && sum.coverage.Covers(line.path))
            parts += line.count;
        else if (counted.insert(line.path).second)
            ++names;
    const std::uint64_t not_found = std::min<std::uint64_t>(sum.not_found, names);
    record.attempted = sum.whole.attempted;
    const std::uint64_t lacking = record.attempted > record.objects ? record.attempted - record.objects : 0;
    record.missing = std::max(lacking, names - not_found) + not_found + parts + sum.whole.parse_errors;
}

std::string Files(std::uint64_t count) {
    return FormatText("%llu file%s", Printable(count), count == 1 ? "" : "s");
}

// A line of the server's listings that cannot be read names nothing.
std::string WhereNamed(const NightSum& sum) {
    return sum.missed.empty() ? "the log tells why" : std::string(NightFiles::Missed) + " names them";
}

// Why the night is no backup at all.
void FindFailures(const NightSum& sum, int exit_status, const NightRecord& record, const JudgeRules& rules,
                  std::vector<std::string>& reasons) {
    // A damaged archive matters only where no other one has what it should have.
    if (record.missing > 0 || sum.entries.empty())
        for (const std::string& fault : sum.faults)
            reasons.push_back(fault +
                              "; \"ctar verify\" says more, \"ctar salvage\" makes a sound archive of the rest");
    if (!sum.ran_to_end)
        reasons.push_back(sum.whole.terminated ? "ended on request"
                          : !sum.whole.message.empty()
                              ? "the run did not reach its end: " + MaskControls(sum.whole.message)
                              : "the run did not reach its end: read the log");
    else if (exit_status > 2)
        reasons.push_back(FormatText("vondral ended with status %d: read the log", exit_status));
    if (sum.entries.empty() && sum.ran_to_end)
        reasons.emplace_back("the archive has no object: look at the include and exclude file");
    const auto attempted = static_cast<double>(std::max(record.attempted, record.missing));
    if (record.missing > 0 && static_cast<double>(record.missing) > rules.tolerate * attempted)
        reasons.push_back(FormatText("%s of %llu missing (%s; %s is tolerated): %s", Files(record.missing).c_str(),
                                     Printable(std::max(record.attempted, record.missing)),
                                     ShowShare(static_cast<double>(record.missing) / attempted).c_str(),
                                     ShowShare(rules.tolerate).c_str(), WhereNamed(sum).c_str()));
}

void CompareSize(const char* what, std::uint64_t now, std::uint64_t then, const JudgeRules& rules,
                 std::vector<std::string>& reasons) {
    const auto before = static_cast<double>(then);
    if (static_cast<double>(now) < before * (1 - rules.max_shrink))
        reasons.push_back(FormatText("%llu %s, %s fewer than the %llu of %s; if that is right, run with "
                                     "--accept-shrink",
                                     Printable(now), what, ShowShare(1 - static_cast<double>(now) / before).c_str(),
                                     Printable(then), rules.like->Name().c_str()));
}

// Why a run that looks like a backup is not to be believed.
void FindDoubts(const NightSum& sum, int exit_status, const NightRecord& record, const JudgeRules& rules,
                std::vector<std::string>& reasons) {
    if (sum.ran_to_end && (exit_status == 1 || exit_status == 2) && record.missing == 0)
        reasons.push_back(
            FormatText("vondral ended with status %d, but nothing is known to be missing: read the log", exit_status));
    if (rules.like != nullptr && !rules.accept_shrink) {
        CompareSize("files", record.objects, rules.like->record->objects, rules, reasons);
        CompareSize("bytes", record.bytes, rules.like->record->bytes, rules, reasons);
    }
}

} // namespace

Judgement JudgeNight(const std::string& directory, int retries, ExitStatuses statuses, const JudgeRules& rules) {
    NightSum sum = SumUp(directory, retries, rules);
    Judgement judgement;
    NightRecord& record = judgement.record;
    record.exit_status = statuses.last;
    record.retries = retries;
    for (const auto& [path, size] : sum.entries)
        record.bytes += static_cast<std::uint64_t>(size);
    record.archives = sum.archives;
    record.archive_bytes = sum.archive_bytes;
    CountFiles(sum, record);
    FindFailures(sum, statuses.whole, record, rules, record.reasons);
    const bool failed = !record.reasons.empty();
    record.reasons.insert(record.reasons.end(), rules.mistakes.begin(), rules.mistakes.end());
    if (!failed)
        FindDoubts(sum, statuses.last, record, rules, record.reasons);
    if (failed)
        record.verdict = Verdict::Failed;
    else if (!record.reasons.empty())
        record.verdict = Verdict::Suspicious;
    else
        record.verdict = record.missing == 0 ? Verdict::Good : Verdict::GoodWithGaps;
    if (record.verdict == Verdict::GoodWithGaps)
        record.reasons.push_back(Files(record.missing) + " missing, as tolerated: " + WhereNamed(sum));
    for (const MissedLine& line : sum.missed)
        record.newly_missing += rules.known_missed.contains(line.path) ? 0U : 1U;
    record.missed_lines = sum.missed.size();
    judgement.missed = std::move(sum.missed);
    judgement.ran_to_end = sum.ran_to_end;
    return judgement;
}

std::vector<std::string> CatalogPaths(const std::string& directory) {
    std::vector<std::string> paths;
    for (int retry = 0; retry <= MostRetries; ++retry) {
        std::vector<std::string> lines = ReadLines(In(directory, AttemptFile(NightFiles::Catalog, retry)));
        std::move(lines.begin(), lines.end(), std::back_inserter(paths));
    }
    return paths;
}

std::vector<std::string> CoveredPaths(const std::string& directory, const std::vector<std::string>& archives) {
    std::vector<std::string> paths = CatalogPaths(directory);
    ctar::Coverage coverage;
    std::vector<std::string> entries;
    for (const std::string& name : archives)
        for (const EntryFacts& entry : ReadArchive(In(directory, name), Digests::Skip).entries) {
            coverage.Add(entry.path);
            entries.push_back(entry.path);
        }
    coverage.Finish();
    std::erase_if(paths, [&coverage](const std::string& path) { return !coverage.Covers(path); });
    paths.insert(paths.end(), entries.begin(), entries.end());
    return paths;
}

std::vector<std::string> EntriesOfDied(const std::string& directory, const std::vector<std::string>& archives) {
    // The log of a whole attempt may be long. A partial retry follows only one that reached its end.
    const auto ended = [&directory](int retry) {
        if (!IsPartialRetry(directory, retry) && IsPartialRetry(directory, retry + 1))
            return true;
        const AttemptFacts facts = ReadAttempt(directory, retry);
        return facts.complete && !facts.fatal; // a full disk may have kept the catalog from being written
    };
    std::vector<std::string> paths;
    for (int retry = 0; retry <= MostRetries; ++retry) {
        const std::string name = AttemptFile(NightFiles::Archive, retry);
        if (std::find(archives.begin(), archives.end(), name) != archives.end() && !ended(retry))
            for (const EntryFacts& entry : ReadArchive(In(directory, name), Digests::Skip).entries)
                paths.push_back(entry.path);
    }
    return paths;
}

} // namespace nightly
