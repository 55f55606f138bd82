#include "server_listing.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include "disk.h"
#include "listing.h"
#include "object_kind.h"
#include "path_file.h"
#include "process.h"
#include "resources.h"
#include "text.h"
#include "vondral_command.h"

namespace nightly {

namespace {

// The state of one listing of the server.
struct Walk {
    const Config& config;
    std::string scratch;
    Stream include{}, exclude{};
    std::vector<std::string> include_lines{};
    ServerListing result{};
    std::vector<std::string> next{}; // directories of the next level
};

bool IsExcluded(const Walk& walk, const std::string& path) {
    // What is directly below the root is excluded with two slashes when the whole server is saved.
    const std::string asked = walk.include == nullptr && path.rfind('/') == 0 ? "/" + path : path;
    return MatchPathFile(asked, nullptr, walk.exclude.get(), WildCards::Match) == 0;
}

bool IsIncluded(const Walk& walk, const std::string& path) {
    return walk.include == nullptr || MatchPathFile(path, nullptr, walk.include.get(), WildCards::Match) == 0;
}

bool LeadsToIncluded(const Walk& walk, const std::string& path) {
    for (const std::string& line : walk.include_lines)
        if (line.starts_with(path + "/"))
            return true;
    return false;
}

void NoteTime(Walk& walk, const ListingEntry& entry, const std::string& path) {
    std::tm time{};
    time.tm_year = entry.mtime.year;
    time.tm_mon = entry.mtime.month;
    time.tm_mday = entry.mtime.day;
    time.tm_hour = entry.mtime.hour;
    time.tm_min = entry.mtime.minute;
    time.tm_isdst = -1;
    const std::time_t moment = std::mktime(&time);
    if (moment > walk.result.newest) {
        walk.result.newest = moment;
        walk.result.newest_path = path;
    }
}

void AddObject(Walk& walk, const std::string& directory, const ListingEntry& entry) {
    const std::string path = (directory == "/" ? "" : directory) + "/" + std::string(entry.name);
    const bool is_directory = (entry.mode & S_IFDIR) != 0;
    if (entry.name == "." || entry.name == ".." || IsExcluded(walk, path))
        return;
    NoteTime(walk, entry, path);
    const ObjectKind kind = ClassifyPath(path);
    const bool is_whole = kind == ObjectKind::Library || kind == ObjectKind::Qdls;
    const bool is_included = IsIncluded(walk, path);
    if (is_included && (is_whole || !is_directory)) {
        const std::string group = kind == ObjectKind::Library ? path : path.substr(0, path.find('/', 1));
        ListedTotals& totals = walk.result.totals[group];
        ++totals.files;
        totals.bytes += entry.size;
    }
    if (is_directory && !is_whole && (is_included || LeadsToIncluded(walk, path)))
        walk.next.push_back(path);
}

// One path of the list, without the slash of a directory, split at its last slash.
struct ListedPath {
    std::string directory, name;
};
ListedPath SplitPath(std::string path) {
    if (path.ends_with('/'))
        path.pop_back();
    const std::size_t slash = path.rfind('/');
    return {slash == 0 ? "/" : path.substr(0, slash), path.substr(slash + 1)};
}

// Standard output has the server's lines, the list a path for each, in the same order: for what is in the directory of
// libraries only where it is a library. The list cuts names at their first blank, the lines do not.
void ReadLevel(Walk& walk, const std::string& lines, const std::string& list) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    std::ifstream listed(list), file(lines);
    std::string path;
    bool has_path = static_cast<bool>(std::getline(listed, path));
    for (std::string line; has_path && std::getline(file, line);) {
        ListingEntry entry;
        if (ParseListingLine(line, local, entry))
            continue;
        const ListedPath next = SplitPath(path);
        if (entry.name.substr(0, entry.name.find(' ')) != next.name)
            continue;
        AddObject(walk, next.directory, entry);
        has_path = static_cast<bool>(std::getline(listed, path));
    }
}

// Lists the directories of one level.
void ListLevel(Walk& walk, const std::vector<std::string>& directories) {
    const std::string paths = walk.scratch + "/paths", lines = walk.scratch + "/lines", list = walk.scratch + "/list";
    std::string text;
    for (const std::string& directory : directories)
        text += directory + "\n";
    Disk().WriteFile(paths, text);
    Command command;
    command.arguments = VondralCommand(walk.config);
    command.arguments.insert(command.arguments.end(), {"--list", "3", "--include", paths, "-v"});
    command.output = lines;
    command.files[3] = list;
    command.environment["TZ"] = walk.config.timezone;
    if (RunCommand(command) != 0)
        ++walk.result.failed;
    ReadLevel(walk, lines, list);
}

} // namespace

ServerListing ListServer(const Config& config, const std::string& scratch) {
    ::setenv("TZ", config.timezone.c_str(), 1);
    ::tzset();
    Walk walk{.config = config, .scratch = scratch};
    if (!config.include.empty())
        walk.include.reset(std::fopen(config.include.c_str(), "re"));
    if (!config.exclude.empty())
        walk.exclude.reset(std::fopen(config.exclude.c_str(), "re"));
    std::string line;
    while (walk.include != nullptr && ReadPathLine(line, walk.include.get()))
        walk.include_lines.push_back(line);
    walk.next = {"/"};
    while (!walk.next.empty())
        ListLevel(walk, std::exchange(walk.next, {}));
    return std::move(walk.result);
}

} // namespace nightly
