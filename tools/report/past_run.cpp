#include "past_run.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string_view>

#include <sys/stat.h>

#include "line_splitter.h"
#include "support.h"

namespace {

std::uint64_t HashOf(std::string_view name) {
    return std::hash<std::string_view>{}(name);
}

bool Holds(const std::vector<std::uint64_t>& sorted, std::uint64_t hash) {
    return std::binary_search(sorted.begin(), sorted.end(), hash);
}

void AddName(Changes::Names& names, const std::string& name) {
    ++names.count;
    if (names.names.size() < Changes::MostNames)
        names.names.push_back(name);
}

bool ReadRun(const std::string& path, LoggedRun& run) {
    const Stream file(std::fopen(path.c_str(), "rbe"));
    if (file == nullptr)
        return false;
    LineSplitter splitter;
    std::vector<char> buffer(LogChunk);
    const auto take = [&run](std::string_view line) { TakeLogLine(run, line); };
    while (const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), file.get()))
        SplitLines(splitter, {buffer.data(), count}, take);
    EndLines(splitter, take);
    FinishRun(run);
    return std::ferror(file.get()) == 0;
}

} // namespace

bool ReadPastRun(const std::string& path, PastRun& past) {
    past.path = path;
    LoggedRun run;
    std::uint64_t run_number = 0;
    run.on_object = [&](const LoggedRun& from, const ObjectResult& object) {
        if (from.earlier_runs != run_number) {
            past.there.clear();
            past.missing.clear();
            run_number = from.earlier_runs;
        }
        if (object.outcome != ObjectOutcome::LeftOut)
            (IsMissing(object.outcome) ? past.missing : past.there).push_back(HashOf(object.name));
    };
    struct stat status;
    if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        errno = ESPIPE; // it is read twice
        return false;
    }
    if (!ReadRun(path, run))
        return false;
    if (run.earlier_runs != run_number) { // the last one reported nothing
        past.there.clear();
        past.missing.clear();
    }
    past.objects = run.Objects();
    std::sort(past.there.begin(), past.there.end());
    std::sort(past.missing.begin(), past.missing.end());
    return true;
}

void NoteChange(Changes& changes, const PastRun& past, const LoggedRun& run, const ObjectResult& object) {
    if (run.earlier_runs != changes.run_number) {
        changes = {};
        changes.run_number = run.earlier_runs;
    }
    const std::uint64_t hash = HashOf(object.name);
    changes.seen.push_back(hash);
    if (object.outcome == ObjectOutcome::LeftOut)
        return;
    const bool was_missing = Holds(past.missing, hash);
    if (IsMissing(object.outcome))
        AddName(was_missing ? changes.still_missing : changes.newly_missing, object.name);
    else if (was_missing)
        AddName(changes.there_again, object.name);
}

bool FinishChanges(Changes& changes, const PastRun& past, const LoggedRun& present) {
    if (present.earlier_runs != changes.run_number)
        changes = {};
    std::sort(changes.seen.begin(), changes.seen.end());
    LoggedRun run;
    std::uint64_t run_number = 0;
    run.on_object = [&](const LoggedRun& from, const ObjectResult& object) {
        if (from.earlier_runs != run_number) {
            changes.no_longer_named = {};
            run_number = from.earlier_runs;
        }
        if (object.outcome == ObjectOutcome::Saved && !Holds(changes.seen, HashOf(object.name)))
            AddName(changes.no_longer_named, object.name);
    };
    return ReadRun(past.path, run);
}
