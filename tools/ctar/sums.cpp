#include "sums.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "digest.h"
#include "messages.h"

namespace {

constexpr std::size_t DigestLength = 64;
constexpr std::size_t LongestLine = DigestLength + 2 * 20 + 3 + 4 * LongestName + 2; // every byte of the name escaped

// Takes a number and the blank behind it off the front.
bool TakeNumber(std::string_view& text, std::int64_t& number) {
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr == end || *result.ptr != ' ' || number < 0)
        return false;
    text.remove_prefix(static_cast<std::size_t>(result.ptr + 1 - text.data()));
    return true;
}

// `text` without its newline.
std::optional<SumLine> ParseLine(std::string_view text) {
    SumLine line;
    line.digest = text.substr(0, DigestLength);
    if (text.size() <= DigestLength || text[DigestLength] != ' ' ||
        line.digest.find_first_not_of("0123456789abcdef") != line.digest.npos)
        return std::nullopt;
    text.remove_prefix(DigestLength + 1);
    if (!TakeNumber(text, line.offset) || !TakeNumber(text, line.size))
        return std::nullopt;
    line.name = Unescape(text);
    const bool possible = line.size <= LargestSize - line.offset && Escape(line.name) == text;
    return possible ? std::optional(line) : std::nullopt;
}

} // namespace

SumsFile::SumsFile(const std::string& path) : name_(Escape(path)), stream_(std::fopen(path.c_str(), "rbe")) {
    if (stream_ == nullptr)
        throw Failure(WithReason(name_));
    head_ = ReadLine();
}

void SumsFile::Next() {
    const std::int64_t end = head_->offset + static_cast<std::int64_t>(BlockSize) + head_->size;
    head_ = ReadLine();
    if (head_ && head_->offset < end)
        throw Failure(name_ + ": line " + std::to_string(number_) +
                      ": does not stand behind the line before, in the order of the archive");
}

SumLine SumsFile::LineAt(long position) {
    std::optional<SumLine> line;
    if (std::fseek(stream_.get(), position, SEEK_SET) == 0)
        line = ReadLine();
    if (!line)
        throw Failure(name_ + ": cannot be read twice, as a limit of time demands");
    return *line;
}

std::optional<SumLine> SumsFile::ReadLine() {
    std::array<char, LongestLine + 1> text;
    const long position = std::ftell(stream_.get());
    ++number_;
    errno = 0;
    if (std::fgets(text.data(), static_cast<int>(text.size()), stream_.get()) == nullptr) {
        if (std::ferror(stream_.get()) != 0)
            throw Failure(WithReason(name_ + ": read"));
        return std::nullopt;
    }
    const std::size_t length = std::strlen(text.data());
    std::optional<SumLine> line;
    if (length > 0 && text[length - 1] == '\n')
        line = ParseLine({text.data(), length - 1});
    if (!line)
        throw Failure(name_ + ": line " + std::to_string(number_) +
                      ": is not a line of sums, is cut off, or ends in CR LF");
    line->position = position;
    return line;
}

// ctar sum

namespace {

int Sum(const std::string& archive) {
    Input input(archive, Access::Forward);
    const ChainEnd end = WalkEntries(input, [&input](const Entry& entry, const CtarBlock&) {
        Digest digest;
        const Sink add = [&digest](std::span<const char> bytes) { return digest.Add(bytes); };
        if (ReadData(input, entry, add) == entry.size)
            std::printf("%s %lld %lld %s\n", digest.Hex().c_str(), static_cast<long long>(entry.offset),
                        static_cast<long long>(entry.size), Escape(entry.name).c_str());
    });
    return JudgeChainEnd(input, end);
}

} // namespace

Action DeclareSum(CLI::App& command) {
    static std::string archive;
    command.add_option("ARCHIVE", archive, "the archive, - for standard input")->required();
    return [] { return Sum(archive); };
}
