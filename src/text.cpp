#include "text.h"

#include <algorithm>

namespace {

char Upper(char character) {
    return character >= 'a' && character <= 'z' ? static_cast<char>(character - 'a' + 'A') : character;
}

} // namespace

bool IsSpace(char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

bool IsDigit(char character) {
    return character >= '0' && character <= '9';
}

bool IsControl(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7F;
}

std::string MaskControls(std::string_view text) {
    std::string masked(text);
    std::replace_if(masked.begin(), masked.end(), IsControl, '?');
    return masked;
}

void SkipSpace(std::string_view& text) {
    while (!text.empty() && IsSpace(text.front()))
        text.remove_prefix(1);
}

std::string_view ConsumeField(std::string_view& text) {
    SkipSpace(text);
    std::size_t length = 0;
    while (length < text.size() && !IsSpace(text[length]))
        ++length;
    const std::string_view field = text.substr(0, length);
    text.remove_prefix(length);
    return field;
}

bool EqualsIgnoringCase(std::string_view text, std::string_view other) {
    return text.size() == other.size() && std::equal(text.begin(), text.end(), other.begin(),
                                                     [](char one, char two) { return Upper(one) == Upper(two); });
}

bool StartsWithIgnoringCase(std::string_view text, std::string_view prefix) {
    return EqualsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

std::string ToUpper(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), Upper);
    return text;
}

bool ConsumePrefix(std::string_view& text, std::string_view prefix) {
    if (!text.starts_with(prefix))
        return false;
    text.remove_prefix(prefix.size());
    return true;
}

bool ConsumePrefixIgnoringCase(std::string_view& text, std::string_view prefix) {
    if (!StartsWithIgnoringCase(text, prefix))
        return false;
    text.remove_prefix(prefix.size());
    return true;
}

std::string FormatArguments(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(static_cast<std::size_t>(std::max(length, 0)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

std::string FormatText(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = FormatArguments(format, arguments);
    va_end(arguments);
    return text;
}

bool ReadLine(std::FILE* stream, std::size_t capacity, std::string& line) {
    line.resize(capacity);
    if (std::fgets(line.data(), static_cast<int>(capacity), stream) == nullptr)
        return false;
    line.resize(line.find('\0'));
    return true;
}
