#include "ctar.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>

namespace {

using namespace HeaderFields;

// Writes `digits` octal digits, cut to the field, with a NUL in the field's last byte at the latest.
void PutOctal(CtarBlock& block, HeaderField field, int digits, std::uint64_t value) {
    std::array<char, 32> text;
    std::snprintf(text.data(), text.size(), "%0*llo", digits, static_cast<unsigned long long>(value));
    const std::size_t length = std::min(std::strlen(text.data()), field.width - 1);
    std::copy_n(text.data(), length, block.data() + field.offset);
    block[field.offset + length] = '\0';
}

// Reads an octal number that must fill the field up to a NUL inside it.
bool GetOctal(std::span<const char, BlockSize> block, HeaderField field, long long& value) {
    std::array<char, 16> text{};
    std::copy_n(block.data() + field.offset, field.width, text.data());
    char* end;
    errno = 0;
    value = std::strtoll(text.data(), &end, 8);
    return end != text.data() && *end == '\0' && end < text.data() + field.width && errno == 0;
}

// Whether every byte outside the checksum field is zero.
bool IsZeroOutsideChecksum(std::span<const char, BlockSize> block) {
    const auto zero = [](char byte) { return byte == 0; };
    return std::all_of(block.begin(), block.begin() + Checksum.offset, zero) &&
           std::all_of(block.begin() + Checksum.offset + Checksum.width, block.end(), zero);
}

} // namespace

int HeaderChecksum(std::span<const char, BlockSize> block) {
    int sum = static_cast<int>(Checksum.width) * ' ';
    for (std::size_t i = 0; i < BlockSize; ++i)
        if (i < Checksum.offset || i >= Checksum.offset + Checksum.width)
            sum += static_cast<signed char>(block[i]);
    return sum & 0xFFFF;
}

// Sizes

namespace {

constexpr std::string_view SizeAlphabet = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr int GroupBits = 6;

} // namespace

void EncodeSize64(std::uint64_t value, std::span<char, Size.width> field) {
    field[0] = '#';
    for (std::size_t i = 1; i < field.size(); ++i) {
        field[i] = SizeAlphabet[value % SizeAlphabet.size()];
        value >>= GroupBits;
    }
}

int DecodeSize64(std::uint64_t& value, std::span<const char, Size.width> field) {
    if (field[0] != '#')
        return -1;
    value = 0;
    for (std::size_t i = 1; i < field.size(); ++i) {
        const std::uint64_t group = SizeAlphabet.find(field[i]);
        if (group == SizeAlphabet.npos)
            break;
        value |= group << (GroupBits * (i - 1));
    }
    return 0;
}

namespace {

void PutSize(CtarBlock& block, HeaderField field, std::uint64_t size) {
    if (size > LargestOctalSize)
        EncodeSize64(size, std::span<char, Size.width>(block.data() + field.offset, Size.width));
    else
        PutOctal(block, field, 11, size);
}

} // namespace

bool ReadCtarSize(std::span<const char, BlockSize> block, std::int64_t& size, HeaderField field) {
    std::uint64_t coded;
    if (DecodeSize64(coded, block.subspan(field.offset).first<Size.width>()) == 0) {
        size = static_cast<std::int64_t>(coded);
    } else {
        long long number;
        if (!GetOctal(block, field, number))
            return false;
        size = number;
    }
    return size >= 0 && size <= LargestSize;
}

// Mode and time

namespace {

// A number that is not negative; leaves `value` as it is when there is none.
template <typename Number>
bool ReadNumber(std::span<const char, BlockSize> block, HeaderField field, Number& value) {
    long long number;
    if (!GetOctal(block, field, number) || number < 0)
        return false;
    value = static_cast<Number>(number);
    return true;
}

} // namespace

bool ReadCtarMode(std::span<const char, BlockSize> block, std::uint32_t& mode) {
    return ReadNumber(block, Mode, mode);
}

bool ReadCtarMtime(std::span<const char, BlockSize> block, std::time_t& mtime) {
    return ReadNumber(block, Mtime, mtime);
}

void PutCtarMtime(CtarBlock& block, std::time_t mtime) {
    PutOctal(block, Mtime, 11, static_cast<std::uint64_t>(mtime));
    PutOctal(block, Checksum, 7, static_cast<unsigned>(HeaderChecksum(block)));
}

// Names

namespace {

// Fills one piece from the front of `rest` and takes it off.
void PutPiece(CtarBlock& block, HeaderField field, std::string_view& rest) {
    const std::size_t length = std::min(rest.size(), field.width);
    std::copy_n(rest.data(), length, block.data() + field.offset);
    rest.remove_prefix(length);
}

// Distributes the name over its pieces; returns whether some of it was left over. Names of exactly 100 characters
// and of 170 and more carry the flag, because their last plain piece ends without a terminator.
bool PutName(CtarBlock& block, std::string_view name) {
    const bool is_long = name.size() == Name1.width || name.size() >= Name1.width + Name2.width;
    PutPiece(block, Name1, name);
    PutPiece(block, Name2, name);
    if (is_long) {
        PutOctal(block, LongName, 3, LongNameFlag);
        PutPiece(block, Name3, name);
        PutPiece(block, Name4, name);
        PutPiece(block, Name5, name);
    }
    return !name.empty();
}

// Appends one piece to the name; false when a zero byte ended the name in it.
bool GetPiece(std::span<const char, BlockSize> block, HeaderField field, std::string& name) {
    const char* const from = block.data() + field.offset;
    const std::size_t length = ::strnlen(from, field.width);
    name.append(from, length);
    return length == field.width;
}

} // namespace

std::string ReadCtarName(std::span<const char, BlockSize> block) {
    std::string name;
    if (!GetPiece(block, Name1, name) || !GetPiece(block, Name2, name))
        return name;
    std::array<char, LongName.width + 1> flags{};
    std::copy_n(block.data() + LongName.offset, LongName.width, flags.data());
    if ((std::strtol(flags.data(), nullptr, 8) & LongNameFlag) == 0)
        return name;
    static_cast<void>(GetPiece(block, Name3, name) && GetPiece(block, Name4, name) && GetPiece(block, Name5, name));
    return name;
}

std::string_view CutNameSuffix(std::string_view name) {
    return name.substr(0, name.find(NameSuffix));
}

// Whole blocks

CtarBlock EncodeCtarHeader(std::string_view path, std::uint64_t size, std::uint32_t mode, std::tm mtime,
                           bool& name_cut) {
    std::string name(path);
    if ((mode & S_IFDIR) != 0)
        name += NameSuffix;
    CtarBlock block{};
    PutOctal(block, Uid, 7, 0);
    PutOctal(block, Gid, 8, 0);
    block[TypeFlag.offset] = '0';
    PutOctal(block, Mode, 7, mode);
    name_cut = PutName(block, name);
    PutOctal(block, Fixed1, 3, 0);
    PutOctal(block, Fixed2, 3, 0);
    PutOctal(block, Fixed3, 3, 1);
    PutOctal(block, Fixed4, 3, 0);
    PutSize(block, Size, size);
    PutSize(block, SizeCopy, size);
    PutCtarMtime(block, std::mktime(&mtime));
    return block;
}

CtarBlock BuildCtarSentinel() {
    CtarBlock block{};
    PutOctal(block, Checksum, 7, static_cast<unsigned>(HeaderChecksum(block)));
    return block;
}

bool HasGoodChecksum(std::span<const char, BlockSize> block) {
    long long stored;
    return GetOctal(block, Checksum, stored) && stored == HeaderChecksum(block);
}

bool IsCtarSentinel(std::span<const char, BlockSize> block) {
    return HeaderChecksum(block) == SentinelChecksum && IsZeroOutsideChecksum(block);
}
