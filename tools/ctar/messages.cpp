#include "messages.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>

#include "support.h"

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
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned char byte = static_cast<unsigned char>(text[i]);
        if (text.substr(i).starts_with("\\x")) {
            const std::string_view digits = text.substr(i + 2, 2);
            std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
            i += 3;
        }
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

std::string Counted(std::int64_t number, const char* one, const char* more) {
    return std::to_string(number) + " " + (number == 1 ? one : more);
}

std::string ShellWord(const std::string& bytes) {
    constexpr const char* plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._+-";
    if (!bytes.empty() && bytes.find_first_not_of(plain) == bytes.npos)
        return bytes;
    std::string text = Escape(bytes);
    for (std::size_t at = 0; (at = text.find('\'', at)) != text.npos;)
        text.replace(at, 1, "\\x27");
    return "$'" + text + "'";
}

std::string OffsetText(std::int64_t offset) {
    return FormatText("0x%llx (%lld)", static_cast<unsigned long long>(offset), static_cast<long long>(offset));
}

void Complain(const std::string& text) {
    std::fprintf(stderr, "ctar: %s\n", text.c_str());
}

bool OutputArrived() {
    errno = EIO; // a failure further back has left no other reason
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
        return true;
    Complain(WithReason("standard output"));
    return false;
}

void RequireOutput() {
    if (!OutputArrived())
        throw OutputLost();
}
