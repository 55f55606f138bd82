#include "messages.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <span>

#include "text.h"

namespace ctar {

std::string WithReason(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

std::string Escape(std::string_view bytes) {
    std::string text;
    for (const char byte : bytes)
        if (byte >= ' ' && byte <= '~' && byte != '\\')
            text += byte;
        else
            text += FormatText("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(byte)));
    return text;
}

std::string Unescape(std::string_view text) {
    std::string bytes;
    while (!text.empty()) {
        unsigned char byte = static_cast<unsigned char>(text.front());
        if (ConsumePrefix(text, "\\x")) {
            const std::string_view digits = text.substr(0, 2);
            std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
            text.remove_prefix(digits.size());
        } else {
            text.remove_prefix(1);
        }
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::string FormatCount(std::int64_t number, const char* singular, const char* plural) {
    return std::to_string(number) + " " + (number == 1 ? singular : plural);
}

std::string QuoteForShell(const std::string& bytes) {
    constexpr const char* plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._+-";
    if (!bytes.empty() && bytes.find_first_not_of(plain) == bytes.npos)
        return bytes;
    std::string text = Escape(bytes);
    for (std::size_t at = 0; (at = text.find('\'', at)) != text.npos;)
        text.replace(at, 1, "\\x27");
    return "$'" + text + "'";
}

std::string FormatOffset(std::int64_t offset) {
    return FormatText("0x%llx (%lld)", static_cast<unsigned long long>(offset), static_cast<long long>(offset));
}

void RefuseBracketed(int argc, char** argv) {
    for (const std::string_view argument : std::span(argv, static_cast<std::size_t>(argc)))
        if (argument.starts_with('[') && argument.ends_with(']'))
            throw Failure(Escape(argument) +
                          ": begins and ends with a bracket; put ./ before a file, * before a pattern");
}

void PrintError(const std::string& text) {
    std::fprintf(stderr, "ctar: %s\n", text.c_str());
}

bool FlushOutput() {
    errno = EIO; // an earlier write that failed has left no reason of its own
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return true;
    PrintError(WithReason("standard output"));
    return false;
}

void RequireOutput() {
    if (!FlushOutput())
        throw OutputFailed();
}

} // namespace ctar
