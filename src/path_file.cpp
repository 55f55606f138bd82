#include "path_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include <sys/stat.h>

#include "support.h"

// The lines of a path file

namespace {

constexpr std::string_view Separator = " :: ";
constexpr const char* PatternCharacters = "*?[\\"; // of fnmatch()

auto CountLevels(std::string_view path) {
    return std::count(path.begin(), path.end(), '/');
}

struct PathLine {
    StringPair pair;         // the pattern and the second path
    std::ptrdiff_t levels;   // slashes of the pattern
    std::string_view prefix; // of the pattern: its characters before the first that may be special to fnmatch
};

StringPair SplitLine(std::string_view line) {
    line = line.substr(0, line.find('\n'));
    const std::size_t at = line.find(Separator);
    if (at == line.npos)
        return {std::string(line), std::nullopt};
    return {std::string(line.substr(0, at)), std::string(line.substr(at + Separator.size()))};
}

// A path file as last read. A run asks about each object of the server, so the lines are kept for as long as the file
// is certainly the same: not changed since, and not so shortly before the reading that its time could not tell.
struct PathFile {
    std::FILE* stream = nullptr;
    struct stat status {};
    std::time_t read_at = 0;
    std::time_t checked_at = 0; // when it was last found to be the same
    std::vector<PathLine> lines;

    // Looks at the file once a second; a change is noticed as late as that.
    bool IsCurrent(std::FILE* asked) {
        const std::time_t second = std::time(nullptr);
        if (stream == asked && checked_at == second)
            return true;
        const bool is_current = IsSame(asked);
        checked_at = is_current ? second : 0;
        return is_current;
    }
    bool IsSame(std::FILE* asked) const {
        struct stat now;
        constexpr std::time_t clock_grain = 1; // seconds
        return stream == asked && ::fstat(::fileno(asked), &now) == 0 && now.st_ino == status.st_ino &&
               now.st_dev == status.st_dev && now.st_size == status.st_size &&
               now.st_mtim.tv_sec == status.st_mtim.tv_sec && now.st_mtim.tv_nsec == status.st_mtim.tv_nsec &&
               now.st_mtim.tv_sec + clock_grain < read_at;
    }
    // Requires: the stream is at its start.
    void Read(std::FILE* asked) {
        stream = asked;
        read_at = std::time(nullptr);
        lines.clear();
        if (::fstat(::fileno(asked), &status) != 0)
            read_at = 0;
        for (std::string line; ReadLine(asked, PathLineCapacity, line);)
            lines.push_back({SplitLine(line), 0, {}});
        for (PathLine& line : lines) {
            line.levels = CountLevels(line.pair.first);
            line.prefix = std::string_view(line.pair.first).substr(0, line.pair.first.find_first_of(PatternCharacters));
        }
    }
};

// One for each of the two files of a run; questions alternate between them.
PathFile& Remembered(std::FILE* stream) {
    static std::array<PathFile, 2> files;
    PathFile* const known =
        std::find_if(files.begin(), files.end(), [stream](const PathFile& file) { return file.stream == stream; });
    if (known != files.end())
        return *known;
    std::swap(files[0], files[1]);
    return files[0];
}

bool Matches(const PathLine& line, const std::string& path, std::ptrdiff_t levels) {
    const std::string& pattern = line.pair.first;
    if (line.levels > levels || !path.starts_with(line.prefix))
        return false;
    if (line.prefix.size() == pattern.size()) // nothing special in it: the path, or a leading part of it
        return path.size() == pattern.size() || path[pattern.size()] == '/';
    return ::fnmatch(pattern.c_str(), path.c_str(), PathMatchFlags) == 0;
}

} // namespace

// Mistakes

bool HasWildCard(std::string_view pattern) {
    return pattern.find_first_of("*?") != pattern.npos;
}

bool IsPattern(std::string_view text) {
    return text.find_first_of(PatternCharacters) != text.npos;
}

namespace {

// Whether a pattern such as "*" matches the leading part of every path, which is empty.
bool MatchesEverything(const std::string& pattern) {
    return ::fnmatch(pattern.c_str(), "/", PathMatchFlags) == 0 && pattern != "/";
}

// What is wrong with a line, without its newline; empty when nothing surely is.
std::string MistakeIn(const std::string& line, PathFileUse use) {
    const std::string pattern = SplitLine(line).first;
    if (pattern.empty())
        return use == PathFileUse::BackupInclude ? "is empty and names no object" : "is empty and matches everything";
    if (line.ends_with('\r'))
        return "ends in a carriage return, which is part of its path";
    if (IsSpace(pattern.back()) || IsSpace(line.back()))
        return "has a blank at the end of a path, which is part of it";
    if (use == PathFileUse::BackupExclude && MatchesEverything(pattern))
        return "matches everything";
    if (!pattern.starts_with('/'))
        return "does not begin with a slash";
    if (use == PathFileUse::Restore && HasWildCard(pattern))
        return "contains a wild card and is ignored by a restore";
    return {};
}

} // namespace

std::vector<std::string> FindMistakes(std::FILE* stream, PathFileUse use) {
    constexpr std::size_t most = 10;
    std::vector<std::string> mistakes;
    std::size_t further = 0;
    if (std::fseek(stream, 0, SEEK_SET) != 0)
        return mistakes;
    std::string line;
    for (int number = 1; ReadLine(stream, PathLineCapacity, line); ++number) {
        if (line.ends_with('\n'))
            line.pop_back();
        const std::string mistake = MistakeIn(line, use);
        if (!mistake.empty() && mistakes.size() == most)
            ++further;
        else if (!mistake.empty())
            mistakes.push_back("line " + std::to_string(number) + " " + mistake);
    }
    if (further > 0)
        mistakes.push_back("and " + std::to_string(further) + " more lines like these");
    std::rewind(stream);
    return mistakes;
}

// Questions

bool ReadPathLine(std::string& line, std::FILE* stream) {
    if (!ReadLine(stream, PathLineCapacity, line))
        return false;
    while (line.size() > 1 && line.back() == '\n')
        line.pop_back();
    return true;
}

int MatchPathFile(std::string_view path, StringList* list, std::FILE* stream, WildCards wild_cards) {
    if (stream == nullptr)
        return 1;
    PathFile& file = Remembered(stream);
    if (!file.IsCurrent(stream)) {
        if (std::fseek(stream, 0, SEEK_SET) != 0) {
            LogError("fseek(stream, 0, SEEK_SET): %s\n", std::strerror(errno));
            return -1;
        }
        file.Read(stream);
    }
    const std::string whole(path);
    const std::ptrdiff_t levels = CountLevels(path);
    int result = 1;
    for (const PathLine& line : file.lines) {
        const std::string& pattern = line.pair.first;
        if (wild_cards == WildCards::Ignore && HasWildCard(pattern))
            continue;
        if (Matches(line, whole, levels)) {
            if (list != nullptr)
                list->push_back({whole, line.pair.second});
            return 0;
        }
        if (list != nullptr && pattern.starts_with(whole) && pattern.substr(whole.size()).starts_with('/')) {
            list->push_back(line.pair);
            result = 0;
        }
    }
    return result;
}
