#include "sum_lines.h"

#include <cerrno>
#include <cstdio>
#include <string_view>

#include "ctar.h"
#include "messages.h"
#include "text.h"

namespace ctar {

namespace {

constexpr std::size_t DigestLength = 64;
constexpr std::size_t LongestLine = DigestLength + 2 * 20 + 3 + 4 * LongestName + 2; // every byte of the name escaped

// Consumes a number that is not negative, and the blank after it.
bool ConsumeCount(std::string_view& text, std::int64_t& number) {
    const std::optional<std::int64_t> parsed = ConsumeNumber<std::int64_t>(text);
    number = parsed.value_or(-1);
    return number >= 0 && ConsumePrefix(text, " ");
}

// `text` without its newline.
std::optional<SumLine> ParseLine(std::string_view text) {
    SumLine line;
    line.digest = text.substr(0, DigestLength);
    text.remove_prefix(line.digest.size());
    if (line.digest.size() < DigestLength || line.digest.find_first_not_of("0123456789abcdef") != line.digest.npos)
        return std::nullopt;
    if (!ConsumePrefix(text, " ") || !ConsumeCount(text, line.offset) || !ConsumeCount(text, line.size))
        return std::nullopt;
    line.name = Unescape(text);
    const bool is_possible = line.size <= LargestSize - line.offset && Escape(line.name) == text;
    return is_possible ? std::optional(line) : std::nullopt;
}

} // namespace

std::string FormatSumLine(const SumLine& line) {
    return FormatText("%s %lld %lld %s\n", line.digest.c_str(), static_cast<long long>(line.offset),
                      static_cast<long long>(line.size), Escape(line.name).c_str());
}

SumsFile::SumsFile(const std::string& path) : name_(Escape(path)), stream_(std::fopen(path.c_str(), "rbe")) {
    if (stream_ == nullptr)
        throw Failure(WithReason(name_));
    current_ = ReadNext();
}

void SumsFile::Advance() {
    const std::int64_t end = current_->offset + static_cast<std::int64_t>(BlockSize) + current_->size;
    current_ = ReadNext();
    if (current_ && current_->offset < end)
        throw Failure(name_ + ": line " + std::to_string(number_) +
                      ": out of order: its entry begins before the end of the previous one");
}

SumLine SumsFile::LineAt(long position) {
    std::optional<SumLine> line;
    if (std::fseek(stream_.get(), position, SEEK_SET) == 0)
        line = ReadNext();
    if (!line)
        throw Failure(name_ + ": cannot be read a second time, which --max-duration needs");
    return *line;
}

std::optional<SumLine> SumsFile::ReadNext() {
    std::string text;
    const long position = std::ftell(stream_.get());
    ++number_;
    errno = 0;
    if (!ReadLine(stream_.get(), LongestLine + 1, text)) {
        if (std::ferror(stream_.get()) != 0)
            throw Failure(WithReason(name_ + ": read"));
        return std::nullopt;
    }
    std::optional<SumLine> line;
    if (text.ends_with('\n'))
        line = ParseLine(text.substr(0, text.size() - 1));
    if (!line)
        throw Failure(name_ + ": line " + std::to_string(number_) +
                      ": not a line of sums, cut short, or ends in CR LF");
    line->position = position;
    return line;
}

} // namespace ctar
