#include "ctar.h"

#include <cstring>

#include <sys/stat.h>

#include "archive_writer.h"
#include "test_support.h"

namespace {

std::tm Time() {
    std::tm time{};
    time.tm_year = 109;
    time.tm_mday = 2;
    time.tm_isdst = -1;
    return time;
}

CtarBlock Header(const std::string& path, std::uint64_t size = 1, std::uint32_t mode = 0100644) {
    std::tm time = Time();
    bool cut;
    return EncodeCtarHeader(path, size, mode, time, cut);
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
    const CtarBlock header = Header("/home/x", 1000, 040755);
    std::string expected(512, '\0');
    expected.replace(0, 12, "/home/x.savf");
    expected.replace(100, 7, "0040755");
    expected.replace(108, 7, "0000000");
    expected.replace(116, 7, "0000000");
    expected.replace(124, 11, "00000001750");
    std::tm time = Time();
    expected.replace(136, 11, FormatText("%011lo", static_cast<unsigned long>(std::mktime(&time))));
    expected[156] = '0';
    expected.replace(257, 3, "000");
    expected.replace(261, 3, "000");
    expected.replace(265, 11, "00000001750");
    expected.replace(277, 3, "001");
    expected.replace(281, 3, "000");
    int sum = 256;
    for (const char byte : expected)
        sum += static_cast<signed char>(byte);
    expected.replace(148, 7, FormatText("%07o", static_cast<unsigned>(sum)));
    EXPECT_EQ(Field(header, 0, 512), expected);
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

TEST(Ctar, SuffixGoesWithDirectoriesAndIsCutAnywhere) {
    EXPECT_EQ(ReadCtarName(Header("/home/x", 1, 040755)), "/home/x.savf");
    EXPECT_EQ(CutNameSuffix("/home/x.savf"), "/home/x");
    EXPECT_EQ(CutNameSuffix("/a.savfile"), "/a");
    EXPECT_EQ(CutNameSuffix("/a.sav"), "/a.sav");
}

TEST(Ctar, SizesInBothEncodings) {
    struct Row {
        std::uint64_t size;
        const char* field;
    };
    for (const Row& row : {Row{0, "00000000000"}, {2147483647, "17777777777"}, {2147483648, "#.....0....."}}) {
        const CtarBlock header = Header("/x", row.size);
        EXPECT_EQ(Field(header, 124, 12), std::string(row.field, 12));
        EXPECT_EQ(Field(header, 265, 12), std::string(row.field, 12));
        std::int64_t size;
        EXPECT_TRUE(ReadCtarSize(header, size));
        EXPECT_EQ(static_cast<std::uint64_t>(size), row.size);
    }
    std::array<char, 12> field;
    EncodeSize64(~std::uint64_t{0}, field);
    EXPECT_EQ(std::string(field.data(), 12), "#zzzzzzzzzzD");
}

TEST(Ctar, DamagedSizesAreRefused) {
    struct Row {
        const char* field; // 12 bytes
        bool good;
        std::int64_t size;
    };
    for (const Row& row : {Row{"#/          ", true, 1},
                           {"#zzzzzzzzzzD", false, 0},
                           {"#zzzzzzzzzz5", false, 0},
                           {"00000000010\0", true, 8},
                           {"000000000108", false, 0},
                           {"0000000001 \0", false, 0},
                           {"\0\0\0\0\0\0\0\0\0\0\0\0", false, 0},
                           {"-0000000001\0", false, 0},
                           {"           \0", false, 0},
                           {"x/          ", false, 0}}) {
        CtarBlock header = Header("/x");
        std::memcpy(header.data() + 124, row.field, 12);
        std::int64_t size;
        EXPECT_EQ(ReadCtarSize(header, size), row.good) << row.field;
        if (row.good) {
            EXPECT_EQ(size, row.size) << row.field;
        }
    }
}

} // namespace
