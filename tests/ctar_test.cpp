#include "ctar.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sstream>

#include <sys/stat.h>

#include "archive_writer.h"
#include "test_support.h"

namespace {

CtarBlock Header(const std::string& path, std::uint64_t size = 1, std::uint32_t mode = 0100644) {
    bool cut;
    return EncodeCtarHeader(path, size, mode, {0, 0, 0, 2, 0, 109, 0, 0, 0, 0, nullptr}, cut);
}

std::string Field(const CtarBlock& block, std::size_t offset, std::size_t width) {
    return std::string(block.data() + offset, width);
}

std::string Named(std::size_t length) {
    std::string name(length, '!');
    for (std::size_t i = 0; i + 1 < length; ++i)
        name[i] = static_cast<char>('a' + i % 26);
    return name;
}

TEST(Ctar, SentinelIsZerosAndItsChecksum) {
    std::string expected(512, '\0');
    expected.replace(148, 7, "0000400");
    EXPECT_EQ(Field(BuildCtarSentinel(), 0, 512), expected);
    EXPECT_TRUE(HasGoodChecksum(BuildCtarSentinel()) && IsCtarSentinel(BuildCtarSentinel()));
    EXPECT_FALSE(HasGoodChecksum(CtarBlock{}));
    CtarBlock blank = BuildCtarSentinel();
    blank[155] = ' '; // in place of the NUL
    EXPECT_FALSE(HasGoodChecksum(blank));
    CtarBlock entry = BuildCtarSentinel(); // the same sum, but not nothing
    entry[0] = 1;
    entry[1] = -1;
    EXPECT_TRUE(HasGoodChecksum(entry));
    EXPECT_FALSE(IsCtarSentinel(entry));
}

TEST(Ctar, HeaderStandsByteForByte) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    std::string expected(512, '\0');
    std::istringstream fields("0 /home/x.savf 100 0040755 108 0000000 116 0000000 124 00000001750 136 11127254400 "
                              "148 0011070 156 0 257 000 261 000 265 00000001750 277 001 281 000");
    std::string text;
    for (std::size_t offset; fields >> offset >> text;)
        expected.replace(offset, text.size(), text);
    EXPECT_EQ(Field(Header("/home/x", 1000, 040755), 0, 512), expected);
}

TEST(Ctar, ChecksumTakesBytesAsSigned) {
    CtarBlock block{};
    block[0] = static_cast<char>(0xE9);
    EXPECT_EQ(HeaderChecksum(block), 256 - 23);
    block.fill(static_cast<char>(0x80));
    EXPECT_EQ(HeaderChecksum(block), (256 - 128 * 504) & 0xFFFF);
}

TEST(Ctar, NamesOfEveryLengthComeBack) {
    for (const std::size_t length :
         {1U, 99U, 100U, 101U, 169U, 170U, 171U, 267U, 268U, 269U, 337U, 338U, 339U, 399U, 400U}) {
        const std::string name = Named(length);
        const CtarBlock header = Header(name);
        EXPECT_EQ(ReadCtarName(header), name) << length;
        EXPECT_EQ(Field(header, 293, 3) == "100", length == 100 || length >= 170) << length;
    }
    EXPECT_EQ(ReadCtarName(Header(Named(401))), Named(401).substr(0, 400));
    for (const std::size_t length : {395U, 396U}) { // with the suffix of a directory
        bool cut = false;
        EXPECT_TRUE(HasGoodChecksum(EncodeCtarHeader(std::string(length, 'x'), 1, S_IFDIR, {}, cut)));
        EXPECT_EQ(cut, length > 395);
    }
}

TEST(Ctar, SuffixIsCutAnywhere) {
    EXPECT_EQ(CutNameSuffix("/a.savfile"), "/a");
    EXPECT_EQ(CutNameSuffix("/a.sav"), "/a.sav");
}

TEST(Ctar, SizesInBothEncodings) {
    for (const auto& [size, field] :
         {std::pair(0LL, "00000000000"), {2147483647, "17777777777"}, {2147483648, "#.....0....."}}) {
        const CtarBlock header = Header("/x", static_cast<std::uint64_t>(size));
        EXPECT_EQ(Field(header, 124, 12), std::string(field, 12));
        EXPECT_EQ(Field(header, 265, 12), std::string(field, 12));
        std::int64_t found;
        EXPECT_TRUE(ReadCtarSize(header, found));
        EXPECT_EQ(found, size);
    }
    std::array<char, 12> field;
    EncodeSize64(~std::uint64_t{0}, field);
    EXPECT_EQ(std::string(field.data(), 12), "#zzzzzzzzzzD");
}

TEST(Ctar, DamagedSizesAreRefused) {
    constexpr std::int64_t refused = -99; // which none of the sizes is
    for (const auto& [field, expected] : {std::pair("#/          ", std::int64_t{1}),
                                          {"#zzzzzzzzzzD", refused},
                                          {"#zzzzzzzzzz5", refused},
                                          {"00000000010\0", 8},
                                          {"000000000108", refused},
                                          {"0000000001 \0", refused},
                                          {"\0\0\0\0\0\0\0\0\0\0\0\0", refused},
                                          {"-0000000001\0", refused},
                                          {"           \0", refused},
                                          {"x/          ", refused}}) {
        CtarBlock header = Header("/x");
        std::memcpy(header.data() + 124, field, 12);
        std::int64_t size;
        EXPECT_EQ(ReadCtarSize(header, size) ? size : refused, expected) << field;
    }
}

} // namespace
