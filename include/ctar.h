// The CTAR archive format: reading and writing its 512-byte blocks in memory, without any input or output.
//
// An archive is a sequence of entries and one sentinel block. An entry is a header block and the bytes of one save
// file, padded with zeros to whole blocks. Nothing stores an offset: the next header follows 512 + (size rounded up to
// 512) bytes after this one. There is no tar magic, the checksum is not tar's, and a block of zeros is not an end.
//
// The layout of a header is the table HeaderFields below; every byte outside a field is zero. Numbers are octal digits
// with leading zeros and a NUL. The size and its copy use a base-64 form above 2147483647.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <string_view>

constexpr std::size_t BlockSize = 512;
using CtarBlock = std::array<char, BlockSize>;

struct HeaderField {
    std::size_t offset;
    std::size_t width;
};

namespace HeaderFields {
constexpr HeaderField Name1{0, 100};    // characters 0 to 99 of the name
constexpr HeaderField Mode{100, 8};     // st_mode, 7 digits
constexpr HeaderField Uid{108, 8};      // 0
constexpr HeaderField Gid{116, 8};      // 0
constexpr HeaderField Size{124, 12};    // data bytes without padding: 11 digits, or '#' and 11 base-64 characters
constexpr HeaderField Mtime{136, 12};   // seconds since the epoch, 11 digits
constexpr HeaderField Checksum{148, 8}; // 7 digits
constexpr HeaderField TypeFlag{156, 1}; // '0'
constexpr HeaderField Name3{159, 98};   // characters 170 to 267, in a long name
constexpr HeaderField Fixed1{257, 4};   // 0, 3 digits
constexpr HeaderField Fixed2{261, 4};   // 0
constexpr HeaderField SizeCopy{265, 12};
constexpr HeaderField Fixed3{277, 4};   // 1
constexpr HeaderField Fixed4{281, 4};   // 0
constexpr HeaderField LongName{293, 4}; // LongNameFlag, 3 digits, or nothing
constexpr HeaderField Name5{305, 62};   // characters 338 to 399, in a long name
constexpr HeaderField Name2{368, 70};   // characters 100 to 169
constexpr HeaderField Name4{440, 70};   // characters 268 to 337, in a long name
} // namespace HeaderFields

constexpr unsigned LongNameFlag = 64;            // set when name pieces 3 to 5 are in use, and for just 100 characters
constexpr std::size_t LongestName = 400;         // characters that the five pieces hold
constexpr int SentinelChecksum = 256;            // that of a block of zeros
constexpr std::string_view NameSuffix = ".savf"; // ends the name of an object saved as a whole directory
constexpr std::uint64_t LargestOctalSize = 0x7FFFFFFF;
// A larger size is refused: with header and padding it would not fit a file offset.
constexpr std::int64_t LargestSize = INT64_MAX - 2 * static_cast<std::int64_t>(BlockSize);

// `size` rounded up to whole blocks. Sizes from -511 to 0 become 0.
constexpr std::int64_t RoundToBlocks(std::int64_t size) {
    constexpr std::int64_t block = BlockSize;
    return (size + block - 1) / block * block;
}

// The sum of the bytes as signed numbers, the checksum field counted as eight blanks, modulo 65536.
int HeaderChecksum(std::span<const char, BlockSize> block);

// The base-64 form of a size: '#', ten 6-bit groups from the lowest, and the remaining four bits. Decoding returns -1
// when the field does not begin with '#', else 0; it stops at the first character outside the alphabet and keeps what
// it has.
void EncodeSize64(std::uint64_t value, std::span<char, HeaderFields::Size.width> field);
int DecodeSize64(std::uint64_t& value, std::span<const char, HeaderFields::Size.width> field);

// The header of an entry. `path` is the object's full path without suffix, `mtime` a local time. A name of more than
// LongestName characters is stored cut, and `name_cut` set.
CtarBlock EncodeCtarHeader(std::string_view path, std::uint64_t size, std::uint32_t mode, std::tm mtime,
                           bool& name_cut);

CtarBlock BuildCtarSentinel();

// The reader's view of a block.
bool HasGoodChecksum(std::span<const char, BlockSize> block); // digits, a NUL inside the field, the right sum
bool IsCtarSentinel(std::span<const char, BlockSize> block);  // Requires: a good checksum.
// The size in bytes, 0 to LargestSize, or its copy; false when the field, up to a NUL inside it, holds none.
bool ReadCtarSize(std::span<const char, BlockSize> block, std::int64_t& size, HeaderField field = HeaderFields::Size);
// The mode and the modification time as stored; false when the field holds no number.
bool ReadCtarMode(std::span<const char, BlockSize> block, std::uint32_t& mode);
bool ReadCtarMtime(std::span<const char, BlockSize> block, std::time_t& mtime);
// Stores another modification time in a header, seconds since the epoch, and the checksum that goes with it.
void PutCtarMtime(CtarBlock& block, std::time_t mtime);
// The name as stored, assembled from its pieces, with its suffix.
std::string ReadCtarName(std::span<const char, BlockSize> block);
// The object's path: the name up to the first NameSuffix anywhere in it.
std::string_view CutNameSuffix(std::string_view name);
