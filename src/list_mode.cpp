#include "list_mode.h"

#include <algorithm>

#include "object_kind.h"
#include "text.h"

ListStep ConsumeListLine(ListLines& lines, std::string_view& chunk) {
    if (lines.between_lines)
        SkipSpace(chunk);
    if (chunk.empty())
        return ListStep::MoreData;
    const std::size_t length = std::min(chunk.find('\r'), chunk.size());
    lines.pending.append(chunk.substr(0, length));
    lines.between_lines = length < chunk.size();
    // A line that has ended may fill the buffer to its last byte; one that continues may not.
    if (lines.pending.size() > (lines.between_lines ? ListLineLimit + 1 : ListLineLimit))
        return ListStep::TooLong;
    chunk.remove_prefix(length);
    return lines.between_lines ? ListStep::Line : ListStep::MoreData;
}

bool ListedObject::InLibraries() const {
    return StartsWithIgnoringCase(path, LibraryPrefix);
}

bool ListedObject::IsLibrary() const {
    const std::string_view text = name;
    return text.size() >= LibrarySuffix.size() &&
           EqualsIgnoringCase(text.substr(text.size() - LibrarySuffix.size()), LibrarySuffix);
}

namespace {

std::string_view NinthField(std::string_view line) {
    if (!line.empty() && !IsSpace(line.front())) // a line that begins with white space has an empty first field
        ConsumeField(line);
    for (int field = 0; field < 7; ++field)
        ConsumeField(line);
    return ConsumeField(line);
}

} // namespace

std::optional<ListedObject> ParseListLine(std::string_view include_path, std::string_view line) {
    ListedObject object;
    object.name = NinthField(line);
    SkipSpace(line);
    object.is_directory = line.starts_with('d');
    object.path = include_path;
    if (!include_path.ends_with('/'))
        object.path += '/';
    object.path += object.name;
    if (object.path.size() > ListLineLimit)
        return std::nullopt;
    if (object.path.size() == ListLineLimit)
        object.path.pop_back();
    return object;
}
