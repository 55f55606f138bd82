// The built ctar, run as users run it, on archives made here: sound, damaged in every place, and hostile.

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <set>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ctar.h"
#include "support.h"
#include "test_support.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t Record = 528;

Outcome Ctar(const std::vector<std::string>& arguments, const fs::path& input = "/dev/null",
             std::uint64_t file_size_limit = UINT64_MAX, bool close_standard_streams = false) {
    Program program;
    program.executable = CTAR_UNDER_TEST;
    program.arguments = arguments;
    program.input = input;
    program.file_size_limit = file_size_limit;
    program.close_standard_streams = close_standard_streams;
    return program.Run();
}

std::string Bytes(const CtarBlock& block) {
    return {block.data(), block.size()};
}

std::string HeaderOf(const std::string& path, std::uint64_t size, std::uint32_t mode = 0100640) {
    std::tm time{};
    time.tm_year = 126;
    time.tm_mday = 2;
    bool cut;
    return Bytes(EncodeCtarHeader(path, size, mode, time, cut));
}

std::string Padded(std::string data) {
    data.resize((data.size() + BlockSize - 1) / BlockSize * BlockSize);
    return data;
}

std::string EntryOf(const std::string& path, const std::string& data, std::uint32_t mode = 0100640) {
    return HeaderOf(path, data.size(), mode) + Padded(data);
}

std::string Sentinel() {
    return Bytes(BuildCtarSentinel());
}

// Data without a look of headers, different for each seed.
std::string Data(std::size_t records, char seed) {
    std::string data(records * Record, seed);
    for (std::size_t i = 0; i < data.size(); i += 7)
        data[i] = static_cast<char>(i + static_cast<unsigned char>(seed));
    return data;
}

struct Piece {
    std::string path;
    std::string data;
};
const std::vector<Piece> Pieces = {{"/a", Data(1, 'a')}, {"/b", Data(3, 'b')}, {"/c", Data(2, 'c')}};

std::string Three() {
    std::string archive;
    for (const Piece& piece : Pieces)
        archive += EntryOf(piece.path, piece.data);
    return archive + Sentinel();
}

// The names of a sound archive's entries, each followed by a blank; their data must be those of Pieces.
std::string NamesIn(const fs::path& archive) {
    const auto entries = ReadArchiveFile(archive);
    std::string names;
    if (!entries)
        return "no archive";
    for (const ArchiveEntry& entry : *entries) {
        names += entry.name + " ";
        for (const Piece& piece : Pieces)
            if (entry.name == piece.path && entry.data != piece.data)
                names += "(data differ) ";
    }
    return names;
}

// Adds up the ranges that salvage tells of; -1 when there is a gap or an overlap.
long long Covered(const std::string& report) {
    long long end = 0;
    for (std::size_t line = 0; line < report.size(); line = report.find('\n', line) + 1) {
        char* rest = nullptr;
        const long long begin = std::strtoll(report.c_str() + report.find('(', line) + 1, nullptr, 10);
        const long long length = std::strtoll(report.c_str() + report.find("): ", line) + 3, &rest, 10);
        if (begin != end || length <= 0 || std::string_view(rest).substr(0, 8) != " bytes: ")
            return -1;
        end += length;
    }
    return end;
}

std::string Many(int entries) {
    std::string archive;
    for (int i = 0; i < entries; ++i)
        archive += EntryOf(FormatText("/home/%d", i), Pieces[0].data);
    return archive + Sentinel();
}

class CtarTool : public testing::Test {
protected:
    std::string Write(const std::string& bytes, const std::string& name = "x.ctar") {
        WriteFile(dir / name, bytes);
        return dir / name;
    }
    // Salvages the bytes, and checks what holds of every salvage. Gives the outcome; NEW is dir / "new".
    Outcome Salvage(const std::string& bytes) {
        const std::string damaged = Write(bytes, "damaged");
        Outcome outcome = Ctar({"salvage", damaged, "-f", "-o", dir / "new"});
        EXPECT_EQ(outcome.err.empty(), outcome.status == 0) << outcome.err;
        EXPECT_EQ(Covered(outcome.out), static_cast<long long>(bytes.size())) << outcome.out << outcome.err;
        EXPECT_EQ(ReadFile(damaged), bytes);
        const Outcome verified = Ctar({"verify", dir / "new"});
        EXPECT_EQ(verified.status, 0) << verified.out;
        return outcome;
    }
    TempDir dir;
};

TEST_F(CtarTool, ListsEveryKindAndKeepsHostileNamesHarmless) {
    const std::string archive =
        Write(EntryOf("/Security Data", "1") + EntryOf("/System Configuration", "1") + EntryOf("/QDLS", "1") +
              EntryOf("/QSYS.LIB/PAY.LIB", "1") + EntryOf("/home", "12", 0040755) +
              EntryOf("/e\033[2J\n\xff\\", "123") + Sentinel());
    const Outcome text = Ctar({"list", archive});
    EXPECT_EQ(text.status, 0) << text.err;
    for (const char* part : {"security data  /Security Data\n", "configuration  /System Configuration\n",
                             "documents      /QDLS\n", "library        /QSYS.LIB/PAY.LIB\n",
                             "4096            2  2026-01-02 00:00:00  directory      /home [.savf]\n",
                             "file           /e\\x1b[2J\\x0a\\xff\\x5c\n"})
        EXPECT_TRUE(Holds(text.out, part)) << part << text.out;
    EXPECT_EQ(Ctar({"list", "-"}, archive).out, text.out);
    const Outcome json = Ctar({"list", "--json", archive, "/ho*", "*\xff*"});
    EXPECT_TRUE(json.out.starts_with(R"({"offset":4096,"size":2,"mtime":)")) << json.out;
    EXPECT_TRUE(Holds(json.out, R"("mode":16877,"kind":"directory","path":"/home","name":"/home.savf"})"
                                "\n{\"offset\":5120,\"size\":3,"))
        << json.out;
    EXPECT_TRUE(json.out.ends_with(R"("name":"/e\\x1b[2J\\x0a\\xff\\x5c"})"
                                   "\n"))
        << json.out;
}

TEST_F(CtarTool, ArchivesCutAnywhereAreFoundOutAndSalvaged) {
    const std::string whole = Three();
    // Behind the header and the data of each entry; its padding may be missing.
    const std::size_t ends[] = {512 + 528, 1536 + 512 + 3 * 528, 1536 + 2560 + 512 + 2 * 528};
    std::set<std::size_t> cuts{1, 511, 513, 1039, 1040, 1041, 1535, 1537, whole.size() - 1};
    for (std::size_t cut = 0; cut < whole.size(); cut += BlockSize)
        cuts.insert(cut);
    for (const std::size_t cut : cuts) {
        const Outcome verified = Ctar({"verify", Write(whole.substr(0, cut))});
        EXPECT_EQ(verified.status, 1) << cut;
        const Outcome piped = Ctar({"verify", "-"}, dir / "x.ctar");
        EXPECT_EQ(piped.status, 1) << cut;
        if (cut < BlockSize) {
            EXPECT_TRUE(Holds(verified.out, ": not an archive, or shifted\n")) << verified.out;
            EXPECT_EQ(Ctar({"salvage", dir / "x.ctar", "-o", dir / "never"}).status, 2);
            continue;
        }
        EXPECT_TRUE(Holds(verified.out, "to repair it: ctar salvage " + (dir / "x.ctar").string())) << verified.out;
        std::string names;
        for (std::size_t i = 0; i < Pieces.size(); ++i)
            names += cut >= ends[i] ? Pieces[i].path + " " : "";
        Salvage(whole.substr(0, cut));
        EXPECT_EQ(NamesIn(dir / "new"), names) << cut;
    }
    EXPECT_EQ(Ctar({"verify", Write(whole)}).status, 0);
    EXPECT_EQ(Salvage(whole).status, 0);
    EXPECT_EQ(ReadFile(dir / "new"), whole);
    struct stat status;
    ::stat((dir / "new").c_str(), &status);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

// Whether a fault in that byte of a header with a name of `length` characters leaves a doubt: characters of the name
// but the slash, the mark of a long name, mode, time and the checksum itself.
bool LeavesDoubt(std::size_t at, std::size_t length) {
    const auto in = [at](HeaderField field, std::size_t used) {
        return at >= field.offset && at < field.offset + used;
    };
    using namespace HeaderFields;
    if (in(Mode, Mode.width) || in(Mtime, Mtime.width) || in(Checksum, Checksum.width))
        return true;
    if (length < Name1.width) // with the NUL
        return at > 0 && in(Name1, length + 1);
    return at > 0 && (in(Name1, Name1.width) || in(Name2, Name2.width) || in(Name3, Name3.width) ||
                      in(Name4, Name4.width) || in(Name5, length + 1 - 338) || in(LongName, 3));
}

// The checksum finds it out, salvage keeps the entry and mends what can be known.
TEST_F(CtarTool, EveryDamagedByteOfAHeaderIsFoundOutAndMended) {
    for (const std::size_t length : {6U, 390U})
        for (const char mask : {'\x15', '\x80'}) {
            std::string whole, damaged;
            std::vector<std::string> verify{"verify"};
            for (std::size_t at = 0; at < BlockSize; ++at) {
                std::string name = FormatText("/b%zu", 1000 + at);
                name.resize(length, 'n');
                const std::string sound = EntryOf(FormatText("/a%zu", at), Pieces[0].data);
                std::string entry = EntryOf(name, Pieces[1].data);
                whole += entry + sound;
                entry[at] ^= mask;
                damaged += entry + sound;
                verify.push_back(Write(entry + Sentinel(), FormatText("v%zu", at)));
            }
            const std::size_t stride = whole.size() / BlockSize;
            const std::string found = Ctar(verify).out, told = Salvage(damaged + Sentinel()).out;
            const std::string mended = ReadFile(dir / "new");
            ASSERT_EQ(mended.size(), whole.size() + BlockSize) << told;
            for (std::size_t at = 0; at < BlockSize; ++at) {
                EXPECT_TRUE(Holds(found, FormatText("/v%zu: 0x0 (0): checksum: ", at))) << at;
                const std::size_t line = told.find(FormatText("(%zu): 2560 bytes: kept as entry /", at * stride));
                const bool doubtful = LeavesDoubt(at, length);
                EXPECT_EQ(Holds(told.substr(line, told.find('\n', line) - line), "may be wrong"), doubtful) << at;
                const std::size_t same = doubtful ? BlockSize : 0; // the data come through in any case
                EXPECT_TRUE(mended.substr(at * stride + same, stride - same) ==
                            whole.substr(at * stride + same, stride - same))
                    << at << " " << length;
            }
        }
}

// A header with the checksum that goes with its bytes.
std::string Rechecked(std::string header) {
    CtarBlock block;
    std::copy(header.begin(), header.end(), block.begin());
    std::snprintf(block.data() + 148, 8, "%07o", static_cast<unsigned>(HeaderChecksum(block)));
    return Bytes(block);
}

TEST_F(CtarTool, HeadersThatFailTogetherOrContradictThemselvesAreMended) {
    constexpr std::size_t a = 0, b = 1536, c = 4096, sentinel = 6144; // where they stand in Three()
    const std::string lost(BlockSize, '\xff');
    const auto sized = [](std::uint64_t size) { // and 1584 as the copy
        const std::string copy = HeaderOf("/b", 1584).substr(265, 12);
        return Rechecked(HeaderOf("/b", size).replace(265, 12, copy));
    };
    struct Row {
        const char* what;
        std::vector<std::pair<std::size_t, std::string>> damage;
        const char* names;
        const char* told; // by salvage, on standard error; nothing: the archive comes back as it was
    };
    for (const Row& row : std::vector<Row>{
             {"two names in a row", {{b + 1, "x"}, {c + 1, "y"}}, "/a /x /y ", "0 bytes dropped, 2 entries in doubt"},
             {"a sound header alone", {{a, lost}, {c, lost}}, "/b ", "4096 bytes dropped, 1 entry in"},
             {"the last name and the sentinel", {{c + 1, "x"}, {sentinel + 9, "x"}}, "/a /b /x ", " 1 entry in doubt"},
             {"a broken header behind a lost one", {{a, lost}, {b + 120, "7"}}, "/b /c ", "1536 bytes dropped, 0 en"},
             {"a broken name behind a lost one", {{a, lost}, {b + 1, "x"}}, "/x /c ", "1536 bytes dropped, 1 en"},
             {"digits that changed places", {{b + 124, "00000003006"}}, "/a /b /c ", "0 bytes dropped, 1 entry in"},
             {"digits that lead astray", {{b + 124, "00000006030"}}, "/a /b /c ", ""},
             {"a size that leads to the sentinel", {{b, sized(4096)}}, "/a /b /c ", "0 bytes dropped, 1 entry in"},
             {"a size too small", {{b, sized(528)}}, "/a /b /c ", ""},
             {"no size, and lost what follows", {{b, sized(0)}, {c, lost}}, "/a /b ", "2560 bytes dropped, 1 entry"}}) {
        std::string damaged = Three();
        for (const auto& [at, bytes] : row.damage)
            damaged.replace(at, bytes.size(), bytes);
        const Outcome outcome = Salvage(damaged);
        EXPECT_EQ(NamesIn(dir / "new"), row.names) << row.what << outcome.out;
        EXPECT_TRUE(Holds(outcome.err, row.told)) << row.what << outcome.err;
        EXPECT_EQ(outcome.status, *row.told == '\0' ? 0 : 1) << row.what << outcome.out;
        if (outcome.status == 0) {
            EXPECT_EQ(ReadFile(dir / "new"), Three()) << row.what;
        }
    }
}

// A good checksum does not make a header what the writer writes.
TEST_F(CtarTool, FieldsAndPaddingThatNoBackupWritesAreNamed) {
    struct Row {
        std::size_t offset;
        char byte;
        const char* finding;
    };
    for (const Row& row : {Row{3, 'x', "writes: name"},
                           {107, '7', "writes: mode"},
                           {108, '1', "writes: user"},
                           {116, '1', "writes: group"},
                           {146, 'x', "writes: modification time"},
                           {156, '5', "writes: type"},
                           {157, 'x', "writes: bytes outside the fields"},
                           {159, 'x', "writes: third piece of the name"},
                           {257, '1', "writes: first fixed number"},
                           {261, '1', "writes: second fixed number"},
                           {265, '1', "writes: copy of the size"},
                           {277, '1', "writes: third fixed number"},
                           {281, '1', "writes: fourth fixed number"},
                           {285, 'x', "writes: bytes outside the fields"},
                           {305, 'x', "writes: fifth piece of the name"},
                           {368, 'x', "writes: second piece of the name"},
                           {440, 'x', "writes: fourth piece of the name"}}) {
        const std::string header = Rechecked(HeaderOf("/b", Record).replace(row.offset, 1, 1, row.byte));
        const std::string archive = header + Padded(Data(1, 'b')) + Sentinel();
        const Outcome verified = Ctar({"verify", Write(archive)});
        EXPECT_TRUE(
            Holds(verified.out, std::string("0x0 (0): header: /b: differs from what a backup ") + row.finding + "\n"))
            << row.offset << verified.out;
        EXPECT_EQ(verified.status, 1);
        EXPECT_EQ(Salvage(archive).status, 0);
    }
    // A second of the hour that came twice.
    const std::string autumn = Rechecked(HeaderOf("/b", Record).replace(136, 11, "12423013130"));
    Program moscow;
    moscow.executable = CTAR_UNDER_TEST;
    moscow.arguments = {"verify", Write(autumn + Padded(Data(1, 'b')) + Sentinel())};
    moscow.environment["TZ"] = "Europe/Moscow";
    EXPECT_EQ(moscow.Run().status, 0);
    for (const std::size_t at : {1040U, 1535U}) {
        std::string archive = Three();
        archive[at] = '\x80';
        const Outcome verified = Ctar({"verify", "--json", Write(archive)});
        EXPECT_EQ(verified.status, 1);
        EXPECT_TRUE(Holds(verified.out, R"("offset":1040,"finding":"padding","name":"/a",)")) << verified.out;
        EXPECT_TRUE(Holds(verified.out, R"("entries":3,"findings":1,"mend":"ctar salvage )")) << verified.out;
        EXPECT_TRUE(Holds(Salvage(archive).out, "entry /a: the data may be wrong"));
    }
}

// Bytes lost or too many shift what stands behind them, so that no header stands where the size leads.
TEST_F(CtarTool, ShiftedDataLeaveADoubt) {
    constexpr std::size_t b = 1536, data = b + 512; // of /b in Three()
    struct Row {
        std::size_t at, lost;
        const char* more;
        const char* told; // of /b
    };
    for (const Row& row : {Row{data + 500, 512, "", "entry /b: the"}, Row{data + 500, 9, "", "entry /b: the"},
                           Row{data + 500, 0, "more", "entry /b: the"}, Row{data + 1584, 1, "x", "entry /b: the"},
                           Row{b + 300, 50, "", "entry /b, header repaired: the"},
                           Row{b + 300, 0, "more", "entry /b, header repaired: the"}}) {
        const Outcome outcome = Salvage(Three().replace(row.at, row.lost, row.more));
        EXPECT_TRUE(Holds(outcome.out, std::string(row.told) + " data may be wrong")) << outcome.out;
        EXPECT_TRUE(Holds(outcome.err, " 1 entry in doubt")) << outcome.err;
    }
}

TEST_F(CtarTool, FaultsOfTheEntriesThemselvesNameNoMender) {
    const std::string archive = EntryOf("/" + std::string(420, 'n'), Data(1, 'n')) + EntryOf("/d", Data(1, 'd')) +
                                EntryOf("/cut", Data(1, 'c') + "?") + EntryOf("/d", Data(1, 'e'), 0040755) +
                                EntryOf("relative", Data(1, 'r')) + Sentinel();
    const Outcome verified = Ctar({"verify", Write(archive)});
    EXPECT_EQ(verified.status, 1);
    for (const char* part :
         {"0x0 (0): name-cut: /nn",
          "0xc00 (3072): records: /cut: 529 bytes, not a multiple of 528: the save file was cut short\n",
          "0x1200 (4608): duplicate: /d.savf: same name as the entry at 0x600 (1536)\n",
          "name: relative: the name is not a full path\n", "x.ctar: 5 entries, 4 findings\n"})
        EXPECT_TRUE(Holds(verified.out, part)) << verified.out;
    EXPECT_FALSE(Holds(verified.out, "salvage")) << verified.out;
}

// The data that had come stay behind the old sentinel; the next entry's header stands in the last block of them.
TEST_F(CtarTool, EntriesBehindBrokenRetrievalsComeBack) {
    const std::string a = EntryOf("/a", Pieces[0].data), b = EntryOf("/b", Pieces[1].data),
                      c = EntryOf("/c", Pieces[2].data);
    for (const std::size_t blocks : {0U, 1U, 2U, 9U}) {
        const std::string junk = Data(9, 'j').substr(0, blocks * BlockSize);
        const std::string archive = a + Sentinel() + junk + b + Sentinel() + junk + c + Sentinel();
        const Outcome verified = Ctar({"verify", Write(archive)});
        EXPECT_TRUE(Holds(verified.out, "unreached: " + std::to_string(archive.size() - a.size() - BlockSize) +
                                            " bytes that a restore will not see: "))
            << verified.out;
        EXPECT_EQ(Ctar({"list", dir / "x.ctar"}).status, 1);
        EXPECT_EQ(Salvage(archive).status, blocks == 0 ? 0 : 1);
        EXPECT_EQ(NamesIn(dir / "new"), "/a /b /c ");
    }
    // In broken data, what looks like a header but leads nowhere must not swallow the next entry.
    Salvage(a + Sentinel() + HeaderOf("/phantom", 1024) + Data(9, 'j').substr(0, 512) + b + Sentinel());
    EXPECT_EQ(NamesIn(dir / "new"), "/a /b ");
    // A run that died before it wrote the header, and trailing junk.
    for (const std::string& tail : {Data(4, 'j').substr(0, 2048) + Sentinel(), std::string("junk")}) {
        const Outcome verified = Ctar({"verify", Write(a + Sentinel() + tail)});
        EXPECT_TRUE(Holds(verified.out, "a broken retrieval, or junk")) << verified.out;
        EXPECT_EQ(Salvage(a + Sentinel() + tail).status, 1);
        EXPECT_EQ(NamesIn(dir / "new"), "/a ");
    }
}

// The same, as the writer and a lost connection make it: the third retrieval's data come, its last reply does not.
TEST_F(CtarTool, ABackupWithABrokenRetrievalIsMended) {
    rehearsal::Options options;
    options.root = dir / "root";
    for (const char* file :
         {"Security Data", "System Configuration", "QDLS/F/LETTER", "QSYS.LIB/PAY.LIB/RUN.PGM", "e/f"})
        WriteFile(options.root / file, std::string(3000, 'x'));
    rehearsal::Fault lost;
    lost.kind = rehearsal::Fault::Kind::Close;
    lost.command = "RETR";
    lost.nth = 3;
    lost.reply = 1;
    options.faults = {lost};
    const rehearsal::Server server(options);
    Program backup;
    backup.port = server.Port();
    backup.arguments = {"-s", "127.0.0.1", "-c", "FRED:here:secret", "-x", "no", "-b", dir / "night"};
    EXPECT_EQ(backup.Run().status, 2);
    EXPECT_EQ(NamesIn(dir / "night"), "/Security Data /System Configuration ");
    EXPECT_TRUE(Holds(Ctar({"verify", dir / "night"}).out, ": unreached: "));
    EXPECT_EQ(Salvage(ReadFile(dir / "night")).status, 1);
    EXPECT_EQ(NamesIn(dir / "new"), "/Security Data /System Configuration /QSYS.LIB/PAY.LIB /e.savf ");
}

// What a save file holds is never taken for an entry of the archive, also when its own header is damaged in part.
TEST_F(CtarTool, ArchivesInsideSaveFilesStayInside) {
    const std::string nested = EntryOf("/inner", Data(2, 'i')) + EntryOf("/inner2", Data(1, 'k')) + Sentinel();
    const std::string data = nested + std::string(Record * 33 - nested.size(), '\1');
    const std::string archive = EntryOf("/outer", data) + EntryOf("/a", Pieces[0].data) + Sentinel();
    EXPECT_EQ(Ctar({"verify", Write(archive)}).status, 0);
    for (const std::size_t at : {1000000U, 0x7cU, 0x89U, 148U, 156U}) {
        std::string damaged = archive;
        if (at < damaged.size())
            damaged[at] ^= 1;
        Salvage(damaged);
        EXPECT_EQ(NamesIn(dir / "new"), "/outer /a ") << at;
    }
    Salvage(archive.substr(0, 5000));
    EXPECT_EQ(NamesIn(dir / "new"), "");
}

TEST_F(CtarTool, HostileArchivesEndCleanly) {
    const std::string huge = HeaderOf("/huge", static_cast<std::uint64_t>(LargestSize));
    for (const std::string& bytes : {std::string(), std::string("x"), std::string(5000, '\0'), huge + Sentinel(),
                                     huge + huge, HeaderOf("/zero", 0) + Sentinel()}) {
        const std::string archive = Write(bytes);
        for (const std::vector<std::string>& command :
             {std::vector<std::string>{"verify"}, {"list"}, {"sum"}, {"export"}}) {
            const bool passes = bytes.size() == 1024 && bytes[1] == 'z' && command[0] != "verify";
            EXPECT_EQ(Ctar({command[0], archive}).status, passes ? 0 : 1) << command[0] << bytes.size();
            EXPECT_EQ(Ctar({command[0], "-"}, archive).status == 0, passes) << command[0] << bytes.size();
        }
        if (bytes.size() < BlockSize)
            continue;
        Salvage(bytes);
        EXPECT_EQ(NamesIn(dir / "new"), "");
    }
    ::mkfifo((dir / "fifo").c_str(), 0600);
    EXPECT_EQ(Ctar({"salvage", dir / "fifo", "-o", dir / "never"}).status, 2);
    EXPECT_EQ(Ctar({"extract", dir / "fifo", "/a"}).status, 2);
    for (const char* command : {"list", "verify", "sum", "export"}) {
        const Outcome outcome = Ctar({command, dir.path.string()});
        EXPECT_EQ(outcome.status, 2) << command;
        EXPECT_TRUE(outcome.err.ends_with("read at offset 0x0 (0): Is a directory\n")) << outcome.err;
        EXPECT_EQ(Ctar({command, Write(Three())}, "/dev/null", UINT64_MAX, true).status, 2) << command;
    }
}

TEST_F(CtarTool, SumsTellWhatChanged) {
    const std::string archive = Write(Three()), sums = dir / "sums";
    const Outcome sum = Ctar({"sum", archive});
    EXPECT_EQ(sum.status, 0);
    EXPECT_TRUE(Holds(sum.out, " 1536 1584 /b\n")) << sum.out;
    WriteFile(sums, sum.out);
    EXPECT_EQ(Ctar({"verify", "--sums", sums, "-"}, archive).status, 0);
    std::string changed = Three();
    changed[2048 + 1000] ^= 1;
    Write(changed);
    EXPECT_EQ(Ctar({"verify", archive}).status, 0);
    for (const std::vector<std::string>& more :
         {std::vector<std::string>{}, {"--max-duration", "1h"}, {"--sample", "100%", "--seed", "5"}}) {
        std::vector<std::string> arguments{"verify", "--sums", sums, archive};
        arguments.insert(arguments.end(), more.begin(), more.end());
        const Outcome verified = Ctar(arguments);
        EXPECT_EQ(verified.status, 1);
        EXPECT_TRUE(Holds(verified.out, "0x600 (1536): differs: /b: the data differ from the sums")) << verified.out;
        EXPECT_TRUE(Holds(verified.out, "the data of 3 of 3 entries (100.0 %), 3168 of 3168 bytes (100.0 %)\n"));
    }
    const Outcome none = Ctar({"verify", "--sums", sums, "--sample", "0%", archive});
    EXPECT_TRUE(Holds(none.out, "the data of 0 of 3 entries (0.0 %), 0 of 3168 bytes")) << none.out;
    const std::size_t second = sum.out.find('\n') + 1, third = sum.out.find('\n', second) + 1;
    WriteFile(sums, sum.out.substr(0, second) + std::string(64, '0') + " 2048 1 /g\\xe9\n" + sum.out.substr(third));
    const Outcome verified = Ctar({"verify", "--json", "--sums", sums, Write(Three())});
    EXPECT_TRUE(Holds(verified.out, R"(2048,"finding":"missing","name":"/g\\xe9","text":"in the sums, but not in the)"))
        << verified.out;
    EXPECT_TRUE(Holds(verified.out, R"(1536,"finding":"additional","name":"/b",)")) << verified.out;
    const std::string zeros(64, '0');
    for (const std::string& bad :
         {sum.out.substr(0, sum.out.size() - 1), sum.out + sum.out, std::string("x\n"), std::string(100000, 'a'),
          zeros + " 0 1 /\033\n", zeros + " 0 1 /\xe9\n", zeros + " 0 1 /\\\n", zeros + " 0 1 /\\x4g\n",
          zeros + " 0 9223372036854775807 /a\n", zeros + " 0 529 /a\n" + zeros + " 1024 1 /b\n"}) {
        WriteFile(sums, bad);
        const Outcome refused = Ctar({"verify", "--json", "--sums", sums, archive});
        EXPECT_EQ(refused.status, 2) << bad;
        EXPECT_TRUE(Holds(refused.err, "sums: line ")) << refused.err;
    }
}

TEST_F(CtarTool, SumsReachBehindAFault) {
    const std::string sums = dir / "sums";
    WriteFile(sums, Ctar({"sum", Write(Three())}).out);
    std::string damaged = Three();
    damaged[1536 + 120] ^= 1; // in the header of /b
    damaged[4608 + 9] ^= 1;   // in the data of /c
    const std::string archive = Write(damaged);
    for (const char* from : {archive.c_str(), "-"}) {
        const Outcome verified = Ctar({"verify", "--sums", sums, from}, archive);
        for (const char* part :
             {"0x600 (1536): missing: /b: in the sums, but not found: see the fault at 0x600 (1536)\n",
              "0x1000 (4096): differs: /c: the data differ from the sums",
              "the data of 2 of 3 entries (66.7 %), 1584 of 3168 bytes (50.0 %)\n"})
            EXPECT_TRUE(Holds(verified.out, part)) << part << verified.out;
    }
    const Outcome cut = Ctar({"verify", "--sums", sums, Write(damaged.substr(0, 5000))});
    EXPECT_TRUE(Holds(cut.out, "0x1000 (4096): cut-data: /c: ")) << cut.out;
    EXPECT_TRUE(Holds(cut.out, "the data of 1 of 3 entries")) << cut.out;
}

TEST_F(CtarTool, ShareOfTheDataIsAsAskedFor) {
    const std::string sums = dir / "sums", archive = Write(Many(200));
    WriteFile(sums, Ctar({"sum", archive}).out);
    const Outcome half = Ctar({"verify", "--sums", sums, "--sample", "50", "--seed", "7", archive});
    const int count = std::stoi(half.out.substr(half.out.find("the data of ") + 12));
    EXPECT_TRUE(count > 50 && count < 150) << half.out;
    EXPECT_EQ(Ctar({"verify", "--sums", sums, "--sample", "50%", "--seed", "7", archive}).out, half.out);
    EXPECT_TRUE(half.out.ends_with(": 200 entries, sound\n")) << half.out;
    const std::string large = Write(EntryOf("/large", Data(1000, 'l')) + Sentinel());
    WriteFile(sums, Ctar({"sum", large}).out);
    const Outcome late = Ctar({"verify", "--sums", sums, "--max-duration", "0.000000001", large});
    EXPECT_TRUE(Holds(late.out, "compared the data of 0 of 1 entry (0.0 %), ")) << late.out;
    EXPECT_TRUE(late.out.ends_with(": 1 entry, headers sound, no data compared\n")) << late.out;
}

TEST_F(CtarTool, ExtractWritesAllOrNothing) {
    const std::string archive = Write(EntryOf("/x/-rf", "old") + EntryOf("/x/-rf", Data(2, 'r')) +
                                      EntryOf("/x/..", "up") + EntryOf("/d\xe9", "dir", 0040755) + Sentinel());
    const std::string output = dir / "out" / "file";
    fs::create_directory(dir / "out");
    const Outcome last = Ctar({"extract", archive, "/x/-rf", "-o", output});
    EXPECT_EQ(last.status, 0) << last.err;
    EXPECT_TRUE(Holds(last.err, "2 entries /x/-rf; extracting the last, at 0x400 (1024)")) << last.err;
    EXPECT_EQ(ReadFile(output), Data(2, 'r'));
    EXPECT_EQ(Ctar({"extract", archive, "/d\xe9", "-o", output}).status, 2);
    EXPECT_EQ(ReadFile(output), Data(2, 'r'));
    EXPECT_EQ(Ctar({"extract", archive, "/d\\xe9.savf", "-f", "-o", output}).status, 0);
    EXPECT_EQ(ReadFile(output), "dir");
    EXPECT_EQ(Ctar({"extract", archive, "/d\xe9", "-o", "-"}).out, "dir");
    EXPECT_EQ(Ctar({"extract", archive, "/nothing", "-o", output + "2"}).status, 1);
    EXPECT_EQ(Ctar({"extract", archive, "/x/..", "-o", output + "2"}).status, 0);
    fs::remove(output + "2");

    const fs::path before = fs::current_path();
    fs::current_path(dir / "out");
    EXPECT_EQ(Ctar({"extract", archive, "/x/.."}).status, 2);
    EXPECT_EQ(Ctar({"extract", archive, "/x/-rf"}).status, 0);
    fs::current_path(before);
    EXPECT_EQ(ReadFile(dir / "out" / "_rf.savf"), Data(2, 'r'));

    EXPECT_EQ(Ctar({"extract", archive, "/x/-rf", "-f", "-o", output}, "/dev/null", 1000).status, 2);
    fs::create_hard_link(archive, dir / "out" / "link");
    for (const char* name : {"link", "../x.ctar"}) {
        EXPECT_EQ(Ctar({"extract", archive, "/x/-rf", "-f", "-o", dir / "out" / name}).status, 2);
        EXPECT_EQ(Ctar({"salvage", archive, "-f", "-o", dir / "out" / name}).status, 2);
    }
    EXPECT_EQ(Ctar({"salvage", archive, "-o", output}).status, 2);
    EXPECT_EQ(ReadFile(output), "dir");
    const auto left = std::distance(fs::directory_iterator(dir / "out"), fs::directory_iterator());
    EXPECT_EQ(left, 3) << "file, _rf.savf and link, and no temporary file";
}

// Standard output is a pipe that nobody empties, so a salvage with much to tell waits in the middle.
TEST_F(CtarTool, ASignalLeavesNoTemporaryFile) {
    const std::string archive = Write(Many(2000)), pipe = dir / "pipe";
    ::mkfifo(pipe.c_str(), 0600);
    fs::create_directory(dir / "out");
    for (const int signal : {SIGTERM, SIGQUIT, SIGALRM, SIGXCPU}) {
        const Descriptor reader(::open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        Program salvage;
        salvage.executable = CTAR_UNDER_TEST;
        salvage.arguments = {"salvage", archive, "-o", dir / "out" / "new"};
        salvage.outputs = {{STDOUT_FILENO, pipe}};
        const pid_t process = salvage.Start();
        pollfd told{reader.Get(), POLLIN, 0};
        while (::poll(&told, 1, -1) == 1 && (told.revents & POLLIN) == 0)
            ::usleep(1000); // it has not opened the pipe yet
        EXPECT_FALSE(fs::is_empty(dir / "out"));
        ::kill(process, signal);
        EXPECT_EQ(salvage.Wait().status, -1 - signal);
        EXPECT_TRUE(fs::is_empty(dir / "out"));
    }
}

TEST_F(CtarTool, TellsOfATerminalALockAndAFullDisk) {
    const std::string archive = Write(Many(2000));
    const Descriptor master(::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_TRUE(::grantpt(master.Get()) == 0 && ::unlockpt(master.Get()) == 0);
    const Descriptor held(::open(::ptsname(master.Get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    Program verify;
    verify.executable = CTAR_UNDER_TEST;
    verify.arguments = {"verify", archive};
    verify.outputs = {{STDERR_FILENO, ::ptsname(master.Get())}};
    EXPECT_EQ(verify.Run().status, 0);
    std::string shown;
    pollfd drawn{master.Get(), POLLIN, 0};
    for (char byte; !shown.ends_with("\r\033[K") && ::poll(&drawn, 1, 10000) == 1; shown += byte)
        ASSERT_EQ(::read(master.Get(), &byte, 1), 1) << shown;
    EXPECT_TRUE(shown.starts_with("\r[") && Holds(shown, " % ") && shown.ends_with("\r\033[K")) << shown;

    const Descriptor writer(::open(archive.c_str(), O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::flock(writer.Get(), LOCK_EX), 0);
    const Outcome locked = Ctar({"list", archive});
    EXPECT_EQ(locked.status, 0);
    EXPECT_EQ(locked.err, "ctar: " + archive + ": a backup is writing to this file\n");
    const Outcome refused = Ctar({"salvage", Write(Three(), "damaged"), "-f", "-o", archive});
    EXPECT_EQ(refused.status, 2);
    EXPECT_EQ(refused.err, locked.err);
    EXPECT_EQ(ReadFile(archive), Many(2000));
    ::flock(writer.Get(), LOCK_UN);

    Program full;
    full.executable = CTAR_UNDER_TEST;
    full.arguments = {"sum", archive};
    full.outputs = {{STDOUT_FILENO, "/dev/full"}};
    const Outcome outcome = full.Run();
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(outcome.err, "ctar: standard output: No space left on device\n");
}

TEST_F(CtarTool, OddFileNamesAreNotMisread) {
    Write(Three() + "junk", "-dash");
    Write(Three(), "a");
    const fs::path before = fs::current_path();
    fs::current_path(dir.path);
    EXPECT_TRUE(Holds(Ctar({"verify", "--", "-dash"}).out, "to repair it: ctar salvage ./-dash -o NEW\n"));
    EXPECT_EQ(Ctar({"verify", "[a]"}).status, 2);
    fs::current_path(before);
}

TEST_F(CtarTool, ExportIsReadByTar) {
    const std::string longest = std::string(150, 'l') + "/" + std::string(150, 'm'), part(252, 'p');
    const std::string archive = Write(EntryOf("/home", Data(5, 'h'), 0040755) + EntryOf("/home/../../\xe9", "byte") +
                                      EntryOf("/home", "again") + EntryOf("/q/" + part, "long") +
                                      EntryOf("/" + longest + "/x", "1") + EntryOf("/..", "2") + Sentinel());
    const Outcome exported = Ctar({"export", archive});
    EXPECT_EQ(exported.status, 0) << exported.err;
    EXPECT_EQ(Ctar({"export", "-"}, archive).out, exported.out);
    WriteFile(dir / "x.tar", exported.out);
    fs::create_directory(dir / "tree");
    const std::string tar = "tar -xf '" + (dir / "x.tar").string() + "' -C '" + (dir / "tree").string() + "' 2>&1";
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> run(::popen(tar.c_str(), "r"), ::pclose);
    while (std::fgetc(run.get()) != EOF) {
    }
    EXPECT_EQ(ReadFile(dir / "tree" / "home.savf"), Data(5, 'h'));
    EXPECT_EQ(ReadFile(dir / "tree" / "home" / "\xe9.savf"), "byte");
    EXPECT_EQ(ReadFile(dir / "tree" / "home-4608.savf"), "again");
    EXPECT_EQ(ReadFile(dir / "tree" / "q" / (part.substr(0, 245) + "-5632.savf")), "long");
    EXPECT_EQ(ReadFile(dir / "tree" / longest / "x.savf"), "1");
    EXPECT_EQ(fs::status(dir / "tree" / "home.savf").permissions(), static_cast<fs::perms>(0755));
    EXPECT_TRUE(fs::exists(dir / "tree" / ("entry-" + std::to_string(ReadFile(archive).size() - 1536) + ".savf")));
    const std::string cut = Write(ReadFile(archive).substr(0, 2000), "cut");
    EXPECT_EQ(Ctar({"export", cut}).status, 1);
    EXPECT_EQ(Ctar({"export", "-"}, cut).status, 1);
}

} // namespace
