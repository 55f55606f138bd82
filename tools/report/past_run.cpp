#include "past_run.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>

#include "log_reader.h"
#include "resources.h"

namespace report {

namespace {

std::uint64_t HashOf(std::string_view name) {
    return std::hash<std::string_view>{}(name);
}

bool Contains(const std::vector<std::uint64_t>& sorted, std::uint64_t hash) {
    return std::binary_search(sorted.begin(), sorted.end(), hash);
}

void AddName(Changes::Names& names, const std::string& name) {
    ++names.count;
    if (names.names.size() < Changes::MostNames)
        names.names.push_back(name);
}

// Returns false, with errno set, after a failure.
bool ReadRunAt(const std::string& path, LoggedRun& run) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.IsOpen())
        return false;
    errno = ReadRun(file.Get(), run);
    return errno == 0;
}

} // namespace

bool ReadPastRun(const std::string& path, PastRun& past) {
    struct stat status;
    if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) { // opening a pipe could block
        errno = ESPIPE;
        return false;
    }
    LoggedRun run;
    std::uint64_t run_number = 0;
    run.on_result = [&](const LoggedRun& from, const Result& result) {
        if (from.earlier_runs != run_number) {
            past = {};
            run_number = from.earlier_runs;
        }
        if (result.outcome != Outcome::NotRestored)
            (IsMissing(result.outcome) ? past.missing : past.complete).push_back(HashOf(result.name));
    };
    if (!ReadRunAt(path, run))
        return false;
    if (run.earlier_runs != run_number) // the last run has no results
        past = {};
    past.path = path;
    past.expectation = {run.Results(), run.HasSizes() ? run.bytes : run.Get(Total::Bytes).value_or(0),
                        run.Get(Total::RunSeconds).value_or(0)};
    std::sort(past.complete.begin(), past.complete.end());
    std::sort(past.missing.begin(), past.missing.end());
    return true;
}

void AddChange(Changes& changes, const PastRun& past, const LoggedRun& run, const Result& result) {
    if (run.earlier_runs != changes.run_number) {
        changes = {};
        changes.run_number = run.earlier_runs;
    }
    const std::uint64_t hash = HashOf(result.name);
    changes.seen.push_back(hash);
    if (result.outcome == Outcome::NotRestored)
        return;
    const bool was_missing = Contains(past.missing, hash);
    if (IsMissing(result.outcome))
        AddName(was_missing ? changes.still_missing : changes.newly_missing, result.name);
    else if (was_missing)
        AddName(changes.no_longer_missing, result.name);
}

bool FinishChanges(Changes& changes, const PastRun& past, const LoggedRun& present) {
    if (present.earlier_runs != changes.run_number)
        changes = {};
    std::sort(changes.seen.begin(), changes.seen.end());
    LoggedRun run;
    std::uint64_t run_number = 0;
    run.on_result = [&](const LoggedRun& from, const Result& result) {
        if (from.earlier_runs != run_number) {
            changes.no_longer_named = {};
            run_number = from.earlier_runs;
        }
        if (result.outcome == Outcome::Saved && !Contains(changes.seen, HashOf(result.name)))
            AddName(changes.no_longer_named, result.name);
    };
    const bool read = ReadRunAt(past.path, run);
    if (run.earlier_runs != run_number) // the last run has no results
        changes.no_longer_named = {};
    return read;
}

} // namespace report
