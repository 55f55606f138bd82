// Text: the one place that decides what white space, a digit, a number, a prefix and a line are. Pure functions of
// bytes, whatever the locale, for any thread. Consume... functions remove what they return from the front of `text`.

#pragma once

#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

bool IsSpace(char character);   // blank, \t, \n, \v, \f or \r
bool IsDigit(char character);   // 0 to 9
bool IsControl(char character); // a byte below 0x20, or 0x7F

void SkipSpace(std::string_view& text);
// Skips white space, then consumes everything up to the next white space or the end.
std::string_view ConsumeField(std::string_view& text);

// The text with "?" in place of each control character (bytes below 0x20, and 0x7F): for log lines that quote what a
// server or an archive says, which could otherwise forge further lines or steer a terminal.
std::string MaskControls(std::string_view text);

// ASCII letters count as equal to their other case, all other bytes only to themselves.
bool StartsWithIgnoringCase(std::string_view text, std::string_view prefix);
bool EqualsIgnoringCase(std::string_view text, std::string_view other);
std::string ToUpper(std::string text);

// False, with the text unchanged, when it does not begin with the prefix.
bool ConsumePrefix(std::string_view& text, std::string_view prefix);
bool ConsumePrefixIgnoringCase(std::string_view& text, std::string_view prefix);

// A decimal number at the front, without white space before it. Nothing, with the text unchanged, when there is none or
// it does not fit. A "-" is accepted for signed types only.
template <class Number>
std::optional<Number> ConsumeNumber(std::string_view& text) {
    Number number{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc())
        return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(end - text.data()));
    return number;
}

// The same for a text that must be a number as a whole.
template <class Number>
std::optional<Number> ParseNumber(std::string_view text) {
    const std::optional<Number> number = ConsumeNumber<Number>(text);
    return text.empty() ? number : std::nullopt;
}

// The number as strtol and its kin read it in base 0 (decimal, 0x, leading 0; blanks and a sign before it). `convert`
// is strtol, strtoll or strtoull. Returns false when the number is not all of the text; `number` is set all the same,
// to what the text begins with.
template <class Number>
bool ParseAnyBase(const char* text, Number (*convert)(const char*, char**, int), Number& number) {
    char* end;
    number = convert(text, &end, 0);
    return end != text && *end == '\0';
}

// The text that printf would write.
std::string FormatText(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string FormatArguments(const char* format, va_list arguments) __attribute__((format(printf, 1, 0)));

// The number in the type of %llu and %llX, whose size is the same on every machine.
constexpr unsigned long long Printable(std::uint64_t number) {
    return number;
}

// Reads the next line, including its newline, as fgets does with a buffer of `capacity` bytes: a longer line comes in
// pieces of capacity - 1 bytes, and a NUL ends the line early. Returns false at the end of the stream and after a read
// error.
bool ReadLine(std::FILE* stream, std::size_t capacity, std::string& line);
