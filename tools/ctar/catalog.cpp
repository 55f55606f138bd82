#include "catalog.h"

#include <algorithm>
#include <cstdio>

#include "digest.h"
#include "messages.h"
#include "resources.h"
#include "text.h"

namespace ctar {

namespace {

constexpr std::size_t LongestLine = 65536; // bytes, several times that of a path and its prefix

// Consumes "[hh:mm:ss] [Tnn] ".
bool ConsumePrefixOfLine(std::string_view& line) {
    constexpr std::string_view shape = "[00:00:00] [T";
    for (const char expected : shape) {
        if (line.empty() || (expected == '0' ? !IsDigit(line.front()) : line.front() != expected))
            return false;
        line.remove_prefix(1);
    }
    return ConsumeNumber<unsigned>(line) && ConsumePrefix(line, "] ");
}

} // namespace

void ReadCatalog(const std::string& path, const std::function<void(std::string_view)>& process) {
    const Stream stream(std::fopen(path.c_str(), "re"));
    if (stream == nullptr)
        throw Failure(WithReason(Escape(path)));
    std::string line;
    for (std::int64_t number = 1; ReadLine(stream.get(), LongestLine, line); ++number) {
        std::string_view text = line;
        if (!text.ends_with('\n') || !ConsumePrefixOfLine(text))
            throw Failure(Escape(path) + ": line " + std::to_string(number) +
                          ": not a line of a catalog, or cut short");
        text.remove_suffix(1);
        process(text);
    }
    if (std::ferror(stream.get()) != 0)
        throw Failure(WithReason(Escape(path) + ": read"));
}

std::uint64_t Coverage::DigestOf(std::string_view path) {
    return ShortDigest(path);
}

void Coverage::Finish() {
    std::sort(digests_.begin(), digests_.end());
}

bool Coverage::Contains(std::string_view path) const {
    return std::binary_search(digests_.begin(), digests_.end(), DigestOf(path));
}

bool Coverage::Covers(std::string_view path) const {
    while (!path.empty()) {
        if (Contains(path))
            return true;
        path = path.substr(0, path.rfind('/') == path.npos ? 0 : path.rfind('/'));
    }
    return false;
}

} // namespace ctar
