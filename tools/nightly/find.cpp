// vondral-nightly find: which nights have an object, in which entry, when that changed, and how to get it back.

#include "subcommands.h"

#include <cstdio>
#include <optional>
#include <vector>

#include <fnmatch.h>

#include <CLI/CLI.hpp>

#include "config.h"
#include "failure.h"
#include "history.h"
#include "night.h"
#include "path_file.h"
#include "records.h"
#include "report/display.h"
#include "text.h"

namespace nightly {

namespace {

struct FindOptions {
    std::string name, pattern;
    bool json = false;
};

// A pattern without a slash in front is looked for anywhere in a path, one without wild cards is a path, or a directory
// with what is below it.
bool Matches(const std::string& pattern, const std::string& path) {
    const bool is_path = pattern.starts_with('/');
    if (pattern.find_first_of("*?[") == pattern.npos)
        return is_path ? path == pattern || path.starts_with(pattern + "/") : path.find(pattern) != path.npos;
    return ::fnmatch(is_path ? pattern.c_str() : ("*" + pattern).c_str(), path.c_str(), 0) == 0;
}

Json RecordOf(const FoundCopy& copy) {
    Json record{{"night", copy.night->Name()}, {"path", copy.path}};
    record["entry"] = copy.entry.empty() ? Json(nullptr) : Json(copy.entry);
    record["bytes"] = copy.bytes < 0 ? Json(nullptr) : Json(copy.bytes);
    record["sha256"] = copy.digest.empty() ? Json(nullptr) : Json(copy.digest);
    record["in_part"] = copy.in_part;
    record["archive"] = copy.archive.empty() ? Json(nullptr) : Json(copy.archive);
    return record;
}

// The nights of one path, shown as runs of nights whose entry has the same data.
class PathReport {
public:
    explicit PathReport(const Config& config) : config_(config) {}

    void Add(const FoundCopy& copy) {
        if (copies_.empty() || copy.path != copies_.front().path)
            Print();
        copies_.push_back(copy);
    }
    // Prints the path whose nights are complete.
    void Print() {
        if (copies_.empty())
            return;
        ++paths_;
        std::printf("%s\n", MaskControls(copies_.front().path).c_str());
        for (std::size_t first = 0; first < copies_.size();) {
            std::size_t end = first + 1;
            while (end < copies_.size() && IsSame(copies_[end], copies_[first]))
                ++end;
            PrintRun(first, end);
            first = end;
        }
        PrintWayBack();
        copies_.clear();
    }
    std::uint64_t Paths() const { return paths_; }

private:
    static bool IsSame(const FoundCopy& one, const FoundCopy& other) {
        return one.digest == other.digest && one.entry == other.entry && one.archive.empty() == other.archive.empty() &&
               one.in_part == other.in_part && one.night->IsGood() == other.night->IsGood();
    }
    void PrintRun(std::size_t first, std::size_t end) const {
        const FoundCopy& copy = copies_[first];
        const std::string nights = end - first == 1 ? copy.night->Name()
                                                    : FormatText("%s to %s, %zu nights", copy.night->Name().c_str(),
                                                                 copies_[end - 1].night->Name().c_str(), end - first);
        std::string what = copy.entry.empty()        ? "entry not known"
                           : copy.entry == copy.path ? "entry of its own"
                                                     : "in " + MaskControls(copy.entry);
        if (copy.bytes >= 0)
            what += ", " + report::ShowBytes(static_cast<double>(copy.bytes)) + ", sha256 " + copy.digest.substr(0, 12);
        if (copy.in_part)
            what += ", perhaps not: a part of it was missed";
        if (copy.archive.empty())
            what += copy.night->has_archive ? ", archive not known" : ", archive removed";
        if (!copy.night->IsGood())
            what += FormatText(", night %s", VerdictName(copy.night->record->verdict));
        std::printf("  %s: %s\n", nights.c_str(), what.c_str());
    }
    // The newest copy: one of a good night that missed nothing of it, or else any that still has its archive.
    const FoundCopy* BestCopy() const {
        const FoundCopy *best = nullptr, *any = nullptr;
        for (const FoundCopy& copy : copies_) {
            if (!copy.archive.empty())
                any = &copy;
            if (!copy.archive.empty() && !copy.in_part && copy.night->IsGood())
                best = &copy;
        }
        return best != nullptr ? best : any;
    }
    void PrintWayBack() const {
        const FoundCopy* const newest = BestCopy();
        if (newest == nullptr)
            std::printf("  no night is known to have it\n");
        else if (IsPattern(newest->path) || newest->path.find(" :: ") != std::string::npos)
            std::printf("  to get it back: restore the directory above it from %s; no include line can name it\n",
                        newest->night->Name().c_str());
        else if (!newest->night->complete)
            std::printf("  to get it back: vondral -s %s -c ... -r %s -i FILE, with the line: %s\n",
                        config_.server.c_str(), newest->archive.c_str(), MaskControls(newest->path).c_str());
        else
            std::printf("  to get it back: vondral-nightly restore %s %s -i FILE, with the line: %s\n",
                        config_.name.c_str(), newest->night->Name().c_str(), MaskControls(newest->path).c_str());
    }

    const Config& config_;
    std::vector<FoundCopy> copies_;
    std::uint64_t paths_ = 0;
};

int Find(const std::string& configs, const FindOptions& options) {
    const Config config = ReadConfig(configs, options.name);
    const std::vector<Night> nights = ListOwnNights(config);
    const History history(config.directory, nights);
    const auto matches = [&options](const std::string& path) { return Matches(options.pattern, path); };
    if (options.json) {
        Json records = Json::array();
        history.Find(matches, [&records](const FoundCopy& copy) { records.push_back(RecordOf(copy)); });
        PrintRecords(records);
        return records.empty() ? Gaps : Good;
    }
    PathReport report(config);
    history.Find(matches, [&report](const FoundCopy& copy) { report.Add(copy); });
    report.Print();
    if (report.Paths() == 0)
        std::fprintf(stderr, "vondral-nightly: %s: no night of %s has such an object\n", Shown(options.pattern).c_str(),
                     options.name.c_str());
    return report.Paths() == 0 ? Gaps : Good;
}

} // namespace

Action DeclareFind(CLI::App& command, const std::string& configs) {
    static FindOptions options;
    command.add_option("NAME", options.name, "the server")->required();
    command
        .add_option("PATTERN", options.pattern,
                    "a path (with what is below it), part of one, or a shell pattern (* matches / too)")
        ->required();
    command.add_flag("--json", options.json, "print records for programs");
    return [&configs] { return Find(configs, options); };
}

} // namespace nightly
