#include "line_splitter.h"

#include <algorithm>

void SplitLines(LineSplitter& splitter, std::string_view piece, const TakeLine& take) {
    while (!piece.empty()) {
        const std::size_t end = piece.find('\n');
        const std::string_view part = piece.substr(0, end);
        if (end != piece.npos && splitter.held.empty()) {
            take(part.substr(0, LongestLogLine));
        } else {
            splitter.held.append(part.substr(0, LongestLogLine - std::min(LongestLogLine, splitter.held.size())));
            if (end != piece.npos) {
                take(splitter.held);
                splitter.held.clear();
            }
        }
        piece.remove_prefix(end == piece.npos ? piece.size() : end + 1);
    }
}

void EndLines(LineSplitter& splitter, const TakeLine& take) {
    if (!splitter.held.empty())
        take(splitter.held);
    splitter.held.clear();
}
