#include "path_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <fnmatch.h>

#include "settings.h"

namespace {

constexpr std::string_view Separator = " :: ";

StringPair SplitLine(std::string_view line) {
    line = line.substr(0, line.find('\n'));
    const std::size_t at = line.find(Separator);
    if (at == line.npos)
        return {std::string(line), std::nullopt};
    return {std::string(line.substr(0, at)), std::string(line.substr(at + Separator.size()))};
}

auto CountLevels(std::string_view path) {
    return std::count(path.begin(), path.end(), '/');
}

bool Matches(const std::string& pattern, const std::string& path) {
    return CountLevels(pattern) <= CountLevels(path) &&
           ::fnmatch(pattern.c_str(), path.c_str(), FNM_PATHNAME | FNM_LEADING_DIR) == 0;
}

} // namespace

bool ReadPathLine(std::string& line, std::FILE* stream) {
    std::array<char, PathLineCapacity> buffer;
    if (std::fgets(buffer.data(), static_cast<int>(buffer.size()), stream) == nullptr)
        return false;
    line = buffer.data();
    while (line.size() > 1 && line.back() == '\n')
        line.pop_back();
    return true;
}

int MatchPathFile(std::string_view path, StringList* list, std::FILE* stream) {
    if (stream == nullptr)
        return 1;
    if (std::fseek(stream, 0, SEEK_SET) != 0) {
        LogMessageTo(stderr, "%s: fseek(stream, 0, SEEK_SET): %s\n", ProgramName, std::strerror(errno));
        return -1;
    }
    const std::string whole(path);
    const std::string below = whole + "/";
    int result = 1;
    std::array<char, PathLineCapacity> line;
    while (std::fgets(line.data(), static_cast<int>(line.size()), stream) != nullptr) {
        StringPair entry = SplitLine(line.data());
        if (RunSettings.restore_path && entry.first.find_first_of("*?") != std::string::npos)
            continue;
        if (Matches(entry.first, whole)) {
            if (list != nullptr)
                list->push_back({whole, std::move(entry.second)});
            return 0;
        }
        if (list != nullptr && entry.first.starts_with(below)) {
            list->push_back(std::move(entry));
            result = 0;
        }
    }
    return result;
}
