#include "line_splitter.h"

#include <algorithm>

namespace report {

void SplitLines(LineSplitter& splitter, std::string_view piece, const LineHandler& handle) {
    while (!piece.empty()) {
        const std::size_t end = piece.find('\n');
        const std::string_view part = piece.substr(0, end);
        if (end != piece.npos && splitter.partial.empty()) {
            handle(part.substr(0, LongestLogLine));
        } else {
            splitter.partial.append(part.substr(0, LongestLogLine - std::min(LongestLogLine, splitter.partial.size())));
            if (end != piece.npos)
                FlushLine(splitter, handle);
        }
        piece.remove_prefix(end == piece.npos ? piece.size() : end + 1);
    }
}

void FlushLine(LineSplitter& splitter, const LineHandler& handle) {
    if (!splitter.partial.empty())
        handle(splitter.partial);
    splitter.partial.clear();
}

} // namespace report
