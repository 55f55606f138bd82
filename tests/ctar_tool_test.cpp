// The built ctar, run as users run it, on archives made here: sound, damaged in every place, and hostile.

#include <csignal>
#include <fstream>
#include <regex>
#include <set>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ctar.h"
#include "test_support.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace {

std::string HeaderOf(const std::string& path, std::uint64_t size, std::uint32_t mode = 0100640) {
    bool cut;
    const CtarBlock block = EncodeCtarHeader(path, size, mode, {0, 0, 0, 2, 0, 126, 0, 0, 0, 0, nullptr}, cut);
    return {block.begin(), block.end()};
}

std::string With(std::string text, std::size_t at, const std::string& bytes) {
    return text.replace(at, bytes.size(), bytes);
}

// A header with the checksum that its bytes need.
std::string Rechecked(const std::string& header) {
    const int sum = HeaderChecksum(std::span(header).first<BlockSize>());
    return With(header, 148, FormatText("%07o", static_cast<unsigned>(sum)));
}

std::string EntryOf(const std::string& path, std::string data, std::uint32_t mode = 0100640) {
    const std::string header = HeaderOf(path, data.size(), mode);
    data.resize((data.size() + BlockSize - 1) / BlockSize * BlockSize);
    return header + data;
}

// Data of whole records that do not look like headers, different for each seed.
std::string Data(std::size_t records, char seed) {
    std::string data(records * 528, seed);
    for (std::size_t i = 0; i < data.size(); i += 7)
        data[i] = static_cast<char>(i + static_cast<unsigned char>(seed));
    return data;
}

const std::string DataA = Data(1, 'a'), DataB = Data(3, 'b'), DataC = Data(2, 'c');
const std::string A = EntryOf("/a", DataA), B = EntryOf("/b", DataB), C = EntryOf("/c", DataC);
const std::string Sentinel = Rechecked(std::string(BlockSize, '\0')), Three = A + B + C + Sentinel;
constexpr std::size_t AtB = 1536, AtC = 4096, AtSentinel = 6144; // in Three

std::string Many(int entries) {
    std::string archive;
    for (int i = 0; i < entries; ++i)
        archive += EntryOf(FormatText("/home/%d", i), DataA);
    return archive + Sentinel;
}

// The files x.ctar and sums, a command, its status, and what it must print. Without `sums` that file stays as it was.
struct Case {
    std::string archive, command;
    int status;
    std::string text = {}, sums = {};
};

class CtarTool : public testing::Test {
protected:
    CtarTool() { fs::current_path(dir.path); }

    // Starts ctar with the rest of a bash command line, without globbing; x.ctar is its standard input.
    pid_t Start(Program& program, const std::string& command, const std::string& before = "") {
        program.executable = "/bin/bash";
        program.arguments = {"-fc", before + " '" + CTAR_UNDER_TEST + "' " + command};
        program.input = fs::exists("x.ctar") ? "x.ctar" : "/dev/null";
        return program.Start();
    }
    Outcome Run(const std::string& command, const std::string& before = "") {
        Program program;
        Start(program, command, before);
        return program.Wait();
    }
    void Check(const std::vector<Case>& cases) {
        for (const Case& row : cases) {
            WriteFile("./x.ctar", row.archive);
            if (!row.sums.empty())
                WriteFile("./sums", row.sums);
            const Outcome outcome = Run(row.command);
            EXPECT_EQ(outcome.status, row.status) << row.command;
            EXPECT_THAT(outcome.out + outcome.err, HasSubstr(row.text)) << row.command;
        }
    }
    // Salvages the bytes to the file "new", and checks what is true of every salvage.
    Outcome Salvage(const std::string& bytes) {
        WriteFile("./damaged", bytes);
        Outcome outcome = Run("salvage damaged -f -o new");
        EXPECT_EQ(outcome.err.empty(), outcome.status == 0) << outcome.err;
        static const std::regex range(R"(0x[0-9a-f]+ \((\d+)\): ([1-9]\d*) bytes: .+\n)");
        std::size_t end = 0; // of the ranges in the report, which neither overlap nor leave a gap
        for (std::sregex_iterator line(outcome.out.begin(), outcome.out.end(), range), last; line != last; ++line)
            end = std::stoull((*line)[1]) == end ? end + std::stoull((*line)[2]) : bytes.size() + 1;
        EXPECT_EQ(end, bytes.size()) << outcome.out << outcome.err;
        EXPECT_EQ(ReadFile("damaged"), bytes);
        const Outcome verified = Run("verify new");
        EXPECT_EQ(verified.status, 0) << verified.out;
        return outcome;
    }
    TempDir dir; // the test runs in it
};

TEST_F(CtarTool, ListsEveryKindAndEscapesNames) {
    const std::string archive = EntryOf("/Security Data", "1") + EntryOf("/System Configuration", "1") +
                                EntryOf("/QDLS", "1") + EntryOf("/QSYS.LIB/PAY.LIB", "1") +
                                EntryOf("/home", "12", 0040755) + EntryOf("/e~\033[2J\n\xff\\", "123") + Sentinel;
    const std::string lines =
        "           0            1  2026-01-02 00:00:00  security data  /Security Data\n"
        "        1024            1  2026-01-02 00:00:00  configuration  /System Configuration\n"
        "        2048            1  2026-01-02 00:00:00  documents      /QDLS\n"
        "        3072            1  2026-01-02 00:00:00  library        /QSYS.LIB/PAY.LIB\n"
        "        4096            2  2026-01-02 00:00:00  directory      /home [.savf]\n"
        "        5120            3  2026-01-02 00:00:00  file           /e~\\x1b[2J\\x0a\\xff\\x5c\n";
    const std::string home = R"("mode":16877,"kind":"directory","path":"/home","name":"/home.savf"})";
    const auto with_mode = [&archive](const char* mode) {
        return archive.substr(0, 4096) + Rechecked(With(archive.substr(4096, 512), 100, mode)) + archive.substr(4608);
    };
    const std::string odd = R"("path":"/e~\\x1b[2J\\x0a\\xff\\x5c","name":"/e~\\x1b[2J\\x0a\\xff\\x5c"})";
    Check({{archive, "list x.ctar", 0, lines},
           {archive, "list -", 0, lines},
           {EntryOf("/large", std::string(100'000, 'x')) + archive, "list -", 0, "/QSYS.LIB/PAY.LIB"},
           {archive, "list --json x.ctar /home *\xff*", 0, home + "\n{\"offset\":5120,\"size\":3,\"mtime\":"},
           {archive, "list --json x.ctar *\xff*", 0, odd + "\n"},
           {with_mode("0000000"), "list --json x.ctar", 0, R"("mode":0,"kind":"file","path":"/home")"},
           // A mode that is no number becomes that of a file or directory, by the name.
           {with_mode("-000001"), "list --json x.ctar", 0, home}});
    EXPECT_EQ(Run("list x.ctar /none").out, "");
}

TEST_F(CtarTool, ArchivesCutAnywhereAreFoundAndSalvaged) {
    std::set<std::size_t> cuts{513, 1039, 1040, 1041, 1535, 1537, Three.size() - 1};
    for (std::size_t cut = BlockSize; cut < Three.size(); cut += BlockSize)
        cuts.insert(cut);
    for (const std::size_t cut : cuts) {
        const std::string bytes = Three.substr(0, cut);
        Check({{bytes, "verify -", 1, "\n-: to repair it: ctar salvage ARCHIVE -o NEW\n"},
               {bytes, "verify x.ctar", 1, "\nx.ctar: to repair it: ctar salvage x.ctar -o NEW\n"}});
        Salvage(bytes);
        std::string whole; // entries, though their padding may be missing
        for (const auto& [end, entry] : {std::pair(1040U, A), std::pair(3632U, B), std::pair(5664U, C)})
            whole += cut >= end ? entry : "";
        EXPECT_TRUE(ReadFile("new") == whole + Sentinel) << cut;
    }
    EXPECT_EQ(fs::status("new").permissions(), static_cast<fs::perms>(0600));
}

// In doubt are the name but for its slash, the long-name flag, mode, time and the checksum itself.
TEST_F(CtarTool, EveryDamagedByteOfAHeaderIsRepaired) {
    using Ranges = std::vector<std::pair<std::size_t, std::size_t>>; // first byte, and the one after the last
    const Ranges with_long{{1, 108}, {136, 156}, {159, 257}, {293, 296}, {305, 358}, {368, 438}, {440, 510}};
    for (const auto& [name_length, ranges] : {std::pair(6, Ranges{{1, 7}, {100, 108}, {136, 156}}), {390, with_long}})
        for (const char mask : {'\x15', '\x80'}) {
            std::string whole, damaged, doubtful(BlockSize, '\0');
            for (const auto& [first, end] : ranges)
                doubtful.replace(first, end - first, end - first, '\1');
            for (std::size_t at = 0; at < BlockSize; ++at) {
                std::string name = FormatText("/b%zu", 1000 + at);
                name.resize(name_length, 'n');
                std::string entry = EntryOf(name, DataB);
                const std::string sound = EntryOf(FormatText("/a%zu", at), DataA);
                whole += entry + sound;
                entry[at] ^= mask;
                damaged += entry + sound;
            }
            const std::size_t stride = whole.size() / BlockSize;
            const std::string told = Salvage(damaged + Sentinel).out, repaired = ReadFile("new");
            ASSERT_EQ(repaired.size(), whole.size() + BlockSize) << told;
            for (std::size_t at = 0; at < BlockSize; ++at) {
                const std::size_t line = told.find(FormatText("(%zu): 2560 bytes: kept as entry /", at * stride));
                EXPECT_THAT(
                    told.substr(line, told.find('\n', line) - line),
                    testing::EndsWith(doubtful[at] ? "repaired: name, size, mode or time may be wrong" : "repaired"));
                const std::size_t from = at * stride + (doubtful[at] ? BlockSize : 0); // the data are kept in any case
                const std::size_t count = (at + 1) * stride - from;
                EXPECT_TRUE(repaired.substr(from, count) == whole.substr(from, count)) << at;
            }
        }
}

TEST_F(CtarTool, SalvageKeepsWhatCanBeKnown) {
    const std::string lost(BlockSize, '\xff'), copy = HeaderOf("/b", 1584).substr(265, 12);
    const auto sized = [&](std::uint64_t size) { return Rechecked(With(HeaderOf("/b", size), 265, copy)); };
    const auto broken = [](std::size_t at, const std::string& bytes) { return With(Three, at, bytes); };
    const std::string junk = Data(9, 'j');
    const auto unfinished = [&](std::size_t blocks) { // the next entry's header is in the last block received
        const std::string received = junk.substr(0, blocks * BlockSize);
        return A + Sentinel + received + B + Sentinel + received + C + Sentinel;
    };
    const std::string inner = EntryOf("/inner", Data(2, 'i')) + EntryOf("/inner2", DataA) + Sentinel;
    const std::string outer = EntryOf("/outer", inner + std::string(528 * 33 - inner.size(), '\1'));
    const std::string huge = HeaderOf("/huge", static_cast<std::uint64_t>(LargestSize));
    const std::string less = std::string(Three).erase(AtB + 1012, 9), head = std::string(Three).erase(AtB + 300, 50);
    using Row = std::tuple<std::string, std::string, std::string>; // what is told is empty if all is well
    for (const auto& [damaged, kept, told] :
         {Row{Three, A + B + C, ""},
          {A, A, "entry /a: the data may be wrong: zero padding and a header do not follow"},
          {With(broken(AtB + 1, "x"), AtC + 1, "y"), A + EntryOf("/x", DataB) + EntryOf("/y", DataC), " 2 entries in"},
          {With(broken(0, lost), AtC, lost), B, "4096 bytes dropped, 1 entry in doubt"},
          {With(broken(AtC + 1, "x"), AtSentinel + 9, "x"), A + B + EntryOf("/x", DataC), " 1 entry in doubt"},
          {With(broken(0, lost), AtB + 120, "7"), B + C, "1536 bytes dropped, 0 entries in doubt"},
          // Digits that changed places leave the sum as it was, and may lead astray.
          {broken(AtB + 124, "00000003006"), A + B + C, "0 bytes dropped, 1 entry in doubt"},
          {broken(AtB + 124, "00000006030"), A + B + C, ""},
          // A size that leads to the sentinel, one too small, and none while what follows is lost.
          {broken(AtB, sized(4096)), A + B + C, "0 bytes dropped, 1 entry in doubt"},
          {broken(AtB, sized(528)), A + B + C, ""},
          {With(broken(AtB, sized(0)), AtC, lost), A + B, "2560 bytes dropped, 1 entry in doubt"},
          // The size that the checksum confirms wins over one that leads to the sentinel.
          {With(broken(AtB + 124, "00000010000"), AtC, lost), A + B, "2560 bytes dropped, 1 entry in doubt"},
          // Bytes lost or added, so that no header is where the size leads. B's data are kept as far as they go.
          {less, A + EntryOf("/b", less.substr(AtB + 512, 1584)), "entry /b: the data may be wrong"},
          {head, A + EntryOf("/b", head.substr(AtB + 512, 1584)), "entry /b, header repaired: the data may be wrong"},
          {broken(AtB + 2096, "x"), A + B + C, "entry /b: the data may be wrong"},
          // Entries after broken retrievals.
          {unfinished(0), A + B + C, ""},
          {unfinished(1), A + B + C, "512 bytes: dropped: follows a sentinel: data of a broken retrieval, or junk"},
          {unfinished(9), A + B + C, "9216 bytes dropped, 0 entries in doubt"},
          {A + Sentinel + HeaderOf("/phantom", 1024) + junk.substr(0, 512) + B + Sentinel, A + B, "1024 bytes dropped"},
          {A + Sentinel + junk.substr(0, 2048) + Sentinel, A, "2560 bytes dropped, 0 entries in doubt"},
          // Headers within a save file are never the archive's, even if the entry's own is partly damaged.
          {With(outer + A + Sentinel, 0x7c, "1"), outer + A, ""},
          {With(outer + A + Sentinel, 148, "1"), outer + A, "header repaired: name, size, mode or time may be"},
          {outer.substr(0, 5000), "", "dropped: /outer is cut short: 4488 of 17424 bytes\n"},
          {std::string(5000, '\0'), "", "5000 bytes: dropped: zeros\n"},
          {huge + Sentinel, "", "dropped: /huge is cut short: 512 of 9223372036854774783 bytes\n"},
          {HeaderOf("/zero", 0) + Sentinel, "", "512 bytes: dropped: entry without data: /zero\n"}}) {
        const Outcome outcome = Salvage(damaged);
        EXPECT_EQ(outcome.status, told.empty() ? 0 : 1) << outcome.out;
        EXPECT_THAT(outcome.out + outcome.err, HasSubstr(told));
        EXPECT_TRUE(ReadFile("new") == kept + Sentinel) << outcome.out;
    }
}

TEST_F(CtarTool, VerifyNamesEveryFinding) {
    const std::string header = HeaderOf("/b", 528), junk = Data(1, 'j').substr(0, 512), zeros(700, '\0');
    const std::string own = EntryOf("/" + std::string(420, 'n'), DataA) + EntryOf("/d", DataA) +
                            EntryOf("/cut", DataA + "?") + EntryOf("/d", DataB, 0040755) + EntryOf("relative", DataA);
    // A good checksum does not make a header what a backup writes.
    std::string odd = With(header, 146, "x");
    for (const int at : {3, 107, 108, 116, 156, 157, 159, 257, 261, 265, 277, 281, 285, 305, 368, 440})
        odd.replace(at, 1, "7");
    const std::string differs = "x.ctar: 0x0 (0): header: /b: differs from what a backup writes: ";
    const std::vector<std::pair<std::string, std::string>> findings = {
        {own + Sentinel,
         "n: the name has 400 characters, the maximum, and may be cut short\n"
         "x.ctar: 0xc00 (3072): records: /cut: 529 bytes, not a multiple of 528: the save file was cut short\n"
         "x.ctar: 0x1c00 (7168): name: relative: the name is not a full path\n"
         "x.ctar: 0x1200 (4608): duplicate: /d.savf: same name as the entry at 0x600 (1536)\n"
         "x.ctar: 5 entries, 4 findings\n"},
        {With(Three, 1040, "\x80"), "x.ctar: 0x410 (1040): padding: /a: the padding after the"},
        {With(Three, 1535, "\x80"), "x.ctar: 0x410 (1040): padding: /a: the padding after the"},
        {With(Three, AtB + 300, "x"), "x.ctar: 0x600 (1536): checksum: neither a header nor the"},
        {std::string(BlockSize, 'x'), ": no block is a header or a sentinel: not an archive, or"},
        {HeaderOf("/zero", 0) + Sentinel, "x.ctar: 0x0 (0): empty: /zero: an entry without data"},
        {A + Rechecked(With(header, 124, "9")) + Sentinel, " 0x600 (1536): size: /b: a header"},
        {A + With(Sentinel, 148, "400" + zeros.substr(0, 4)), "header: the sentinel differs from"},
        {A + Sentinel + "x", "x.ctar: 0x800 (2048): unreached: 1 byte that a restore will not see: data of a broken"},
        {A + Sentinel + zeros, ": unreached: 700 bytes that a restore will not see: zeros\n"},
        {A + Sentinel + junk + HeaderOf("/zero", 0) + B + Sentinel + C + Sentinel,
         ": 6656 bytes that a restore will not see: 2 entries, the"},
        {Rechecked(odd) + junk + junk + Sentinel,
         differs + "name, mode, user, group, modification time, type, third piece of the name, first fixed number, "
                   "second fixed number, copy of the size, third fixed number, fourth fixed number, fifth piece of "
                   "the name, second piece of the name, fourth piece of the name, bytes outside the fields\n"},
        {Rechecked(With(header, 108, "7")) + junk + zeros, differs + "user\n"},
        {With(header, 148, " ") + junk + zeros, differs + "form of the checksum\n"}};
    for (const auto& [archive, finding] : findings)
        Check({{archive, "verify x.ctar", 1, finding}});
    Check(
        {{own + Sentinel, "verify --json x.ctar", 1,
          R"--({"archive":"x.ctar","offset":4608,"finding":"duplicate","name":"/d.savf","text":"same name as the entry at 0x600 (1536)"}
{"archive":"x.ctar","entries":5,"findings":4,"mend":""})--"},
         {A + Sentinel + B, "list x.ctar", 1, "0x800 (2048): 2560 bytes after the end of the archive; a"}});
    // A second of the hour that a time zone repeats is sound.
    WriteFile("./x.ctar", Rechecked(With(A.substr(0, 512), 136, "12423013130")) + A.substr(512) + Sentinel);
    EXPECT_EQ(Run("verify x.ctar", "TZ=Europe/Moscow").status, 0);
}

TEST_F(CtarTool, VerifyNeedsEveryPathOfTheCatalog) {
    const std::string malformed = ": not a line of a catalog, or cut short\n";
    using Row = std::tuple<std::string, int, std::string>;
    for (const auto& [catalog, status, told] :
         {Row{"", 0, "3 entries, sound\n"},
          {"[01:02:03] [T00] /c\n[23:59:59] [T12] /b/in/side\n", 0, "3 entries, sound\n"},
          {"[01:02:03] [T00] /bb\n", 1, "uncovered: /bb: in the catalog, but no entry of the archive contains it\n"},
          {"[01:02:03] [T00] \n", 1, ": uncovered: in the catalog, but no entry"},
          {"[01:02:03] [T00] /a\n[01:02", 2, "ctar: catalog: line 2" + malformed},
          {"[01:02:03] [T00] /a", 2, "ctar: catalog: line 1" + malformed},
          {"[01:02\n", 2, malformed},
          {"\n", 2, malformed},
          {"[01:02:0x] [T00] /a\n", 2, malformed},
          {"[01:02:03] [T] /a\n", 2, malformed},
          {"[01:02:03] [T00]/a\n", 2, malformed}}) {
        WriteFile("./catalog", catalog);
        Check({{Three, "verify --catalog catalog x.ctar", status, told}});
    }
    Check({{Three, "verify --catalog none x.ctar", 2, "none: No such file or directory\n"},
           {Three, "verify --catalog . x.ctar", 2, ".: read: Is a directory\n"}});
}

TEST_F(CtarTool, HostileInputsEndCleanly) {
    const std::string huge = HeaderOf("/huge", static_cast<std::uint64_t>(LargestSize)), zero = HeaderOf("/zero", 0);
    for (const std::string& bytes : {std::string(), std::string(5000, '\0'), huge + Sentinel, huge + huge})
        for (const std::string command : {"verify", "list", "sum", "export"})
            Check({{bytes, command + " x.ctar", 1}, {bytes, command + " -", 1}});
    ::mkfifo("fifo", 0600);
    WriteFile("./-dash", Three + "junk");
    WriteFile("./[a]", Three);
    Check({{zero + Sentinel, "list x.ctar", 0},
           {zero + Sentinel, "export x.ctar", 0},
           {Three, "list x.ctar <&- >&- 2>&-", 2},
           {"x", "salvage x.ctar -o never", 2, "x.ctar: shorter than one block"},
           {Three, "list [x.ctar]", 2, "[x.ctar]: begins and ends with a bracket; put ./ before a file"},
           {Three, "list .", 2, "read at offset 0x0 (0): Is a directory\n"},
           {Three, "extract fifo /a", 2, ": this command needs the name of a regular file"},
           {Three, "salvage x.ctar -o -", 2},
           {Three, "verify -- -dash", 1, "to repair it: ctar salvage ./-dash -o NEW\n"},
           {Three, "verify -- none ./[a]", 2, "./[a]: 3 entries, sound\nctar: none: No such file or directory\n"}});
}

TEST_F(CtarTool, SumsRevealWhatChanged) {
    Check({{Three, "sum x.ctar | tee sums", 0, " 1536 1584 /b\n"}});
    const std::string sums = ReadFile("sums"), digest(64, '0'), check = "verify --sums sums x.ctar";
    const std::size_t second = sums.find('\n') + 1, third = sums.find('\n', second) + 1;
    const auto with_b = [&](const char* line) { return sums.substr(0, second) + digest + line + sums.substr(third); };
    const std::string changed = With(Three, AtB + 1512, "\x01");
    const std::string fault = With(With(Three, AtB + 120, "7"), AtC + 521, "\x01"), cut = fault.substr(0, 5000);
    const std::string all = "compared the data of 3 of 3 entries (100.0 %), 3168 of 3168 bytes (100.0 %)\n";
    const std::string differs = "x.ctar: 0x600 (1536): differs: /b: the data differ from the sums\nx.ctar: " + all;
    Check(
        {{Three, "verify --sums sums -", 0, all},
         {Three, check + " --max-duration 277777h", 0, all + "x.ctar: 3 entries, sound\n"},
         {changed, check, 1, differs},
         {Three, "verify --sums <(cat sums) --max-duration 9 x.ctar", 2, ": cannot be read a second time, which --max"},
         {changed, check + " --sample 0", 0, " 0 of 3 entries (0.0 %), 0 of 3168 bytes (0.0 %)\n"},
         {fault, check, 1, " (1536): missing: /b: in the sums, but not found: see the fault at 0x600 (1536)\nx.ctar: "},
         {With(fault, AtB + 1024, HeaderOf("/x", 1584)), "verify --sums sums -", 1, "(4096): differs: /c: "},
         {cut, check, 1, "x.ctar: 0x1000 (4096): cut-data: /c: "},
         {Three, check, 1, "differs: /b: the sums have /g here, 1584 bytes\n", with_b(" 1536 1584 /g\n")},
         {Three, check, 1, "differs: /b: the sums have /b here, 1583 bytes\n", with_b(" 1536 1583 /b\n")},
         {Three, check + " --json", 1, R"(1536,"finding":"additional","name":"/b",)", with_b(" 2048 1 /g\\xe9\n")},
         {Three, check + " --json", 1, R"(2048,"finding":"missing","name":"/g\\xe9","text":"in the sums, but not in )"},
         {Three, check + " --json", 1, R"("compared_bytes":1584,"sums_entries":3,"sums_bytes":1585})"}});
    for (const char* const bad : {" x.ctar", " --sample 101", " --sample nan", " --seed -1", " --max-duration 0"})
        Check({{Three, check + bad, 2}});
    for (const std::string& bad :
         {sums.substr(0, sums.size() - 1), sums + sums, std::string("x\n"), std::string(100000, 'a'),
          digest + " 0 1 /\033\n", digest + " 0 1 /\xe9\n", digest + " 0 1 /\\\n", digest + " 0 1 /\\x4g\n",
          digest + " 0 9223372036854775807 /a\n", digest + " 0 529 /a\n" + digest + " 1024 1 /b\n"})
        Check({{Three, check + " --json", 2, "sums: line ", bad}});
    const std::string large = EntryOf("/large", Data(1000, 'l')) + Sentinel; // more than one read
    Check({{Sentinel, "verify --sums /dev/null -", 0, " 0 of 0 entries (100.0 %), 0 of 0 bytes (100.0 %)\n-: 0 ent"},
           {large, "sum - >sums", 0},
           {large, check, 0, "the data of 1 of 1 entry (100.0 %)"},
           {large, check + " --max-duration 0.000000001", 0, "x.ctar: 1 entry, headers sound, no data compared\n"},
           {Many(200), "sum x.ctar >sums", 0}});
    const std::string half = Run(check + " --sample 50 --seed 7").out;
    const int count = std::stoi(half.substr(half.find("the data of ") + 12));
    EXPECT_TRUE(count > 50 && count < 150) << half;
    Check({{Many(200), check + " --sample 50% --seed 7", 0, half}});
}

TEST_F(CtarTool, ExtractWritesAllOrNothing) {
    const std::string archive = EntryOf("/x/-rf", "old") + EntryOf("/x/-rf", Data(2, 'r')) + EntryOf("/x/..", "up") +
                                EntryOf("/d\xe9", "dir", 0040755) + Sentinel;
    WriteFile("./x.ctar", archive);
    fs::create_hard_link("x.ctar", "link");
    Check({{archive, "extract x.ctar /x/-rf -o file", 0, ": 2 entries /x/-rf; extracting the last, at 0x400 (1024)\n"},
           {archive, "extract x.ctar /d\xe9 -o file", 2, ": already exists; use --force to replace it\n"},
           {archive, "extract x.ctar '/d\\xe9.savf' -f -o file", 0},
           {archive, "extract x.ctar /d\xe9 -o -", 0, "dir"},
           {archive + "x", "extract x.ctar /x/.. -o up", 1},
           {archive, "extract x.ctar /x/..", 2, ": /x/..: cannot be made a file name; use -o FILE\n"},
           {archive, "extract x.ctar /x/-rf", 0},
           {archive, "extract x.ctar /x/-rf -f -o link", 2, ": is the archive itself\n"},
           {archive, "extract x.ctar /x/-rf -f -o .", 2, ": not a regular file\n"},
           {archive, "salvage x.ctar -f -o link", 2, ": is the damaged archive itself\n"},
           {archive, "salvage x.ctar -o file", 2, ": already exists"},
           {archive, "extract x.ctar /d -o none", 1, "x.ctar: no entry /d\n"},
           {archive, "extract x.ctar /d\xe9/e -o none", 1, "x.ctar: /d\\xe9/e is inside the entry /d\\xe9; restore it"},
           {archive + "x", "extract x.ctar /d -o none", 1, ": no entry /d where a restore would see it; \"ctar salv"}});
    EXPECT_EQ(Run("extract x.ctar /x/-rf -f -o file", "ulimit -f 1;").status, 2);
    EXPECT_EQ(ReadFile("file") + ReadFile("up") + ReadFile("_rf.savf"), "dirup" + Data(2, 'r'));
    EXPECT_EQ(std::distance(fs::directory_iterator("."), fs::directory_iterator()), 5) << "no temporary file";
}

// Standard output is a pipe that nobody empties, so a salvage with a long report blocks halfway.
TEST_F(CtarTool, ASignalLeavesNoTemporaryFile) {
    WriteFile("./x.ctar", Many(2000));
    ::mkfifo("pipe", 0600);
    fs::create_directory("out");
    for (const int signal : {SIGTERM, SIGQUIT, SIGALRM, SIGXCPU}) {
        Program salvage;
        const pid_t process = Start(salvage, "salvage x.ctar -o out/new >pipe", "exec");
        std::ifstream reader("pipe");
        reader.peek();
        EXPECT_FALSE(fs::is_empty("out"));
        ::kill(process, signal);
        EXPECT_EQ(salvage.Wait().status, -1 - signal);
        EXPECT_TRUE(fs::is_empty("out"));
    }
}

TEST_F(CtarTool, ATerminalALockAndAFullDisk) {
    const std::string archive = Many(2000), warning = "ctar: x.ctar: a backup is writing to this file\n";
    WriteFile("./x.ctar", archive);
    const Descriptor master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_TRUE(::grantpt(master.Get()) == 0 && ::unlockpt(master.Get()) == 0);
    EXPECT_EQ(Run(std::string("verify x.ctar 2>") + ::ptsname(master.Get())).status, 0);
    std::string shown;
    for (char byte; !shown.ends_with("\r\033[K") && ::read(master.Get(), &byte, 1) == 1;)
        shown += byte;
    EXPECT_THAT(shown, testing::MatchesRegex("\r\\[.* % .*\r\033\\[K"));

    const Descriptor writer(::open("x.ctar", O_RDWR | O_CLOEXEC));
    ASSERT_EQ(::flock(writer.Get(), LOCK_EX), 0);
    WriteFile("./damaged", Three);
    Check({{archive, "sum x.ctar >/dev/full", 2, "ctar: standard output: No space left on device\n"},
           {archive, "export x.ctar >/dev/full", 2, "ctar: standard output: No space left on device\n"},
           {archive, "list x.ctar", 0, warning},
           {archive, "salvage damaged -f -o x.ctar", 2, warning},
           {A + Sentinel + Data(1, 'j'), "verify x.ctar", 1, "data of the backup in progress\nx.ctar: 1 entry, 1 fi"}});
    EXPECT_EQ(Run("list damaged").err, ""); // nobody writes to that one
}

TEST_F(CtarTool, ExportIsReadByTar) {
    const std::string longest = std::string(150, 'l') + "/" + std::string(150, 'm'), part(252, 'p');
    const std::string archive = EntryOf("/home", Data(5, 'h'), 0040755) + EntryOf("/home/../../\xe9", "byte") +
                                EntryOf("/home", "again") + EntryOf("/q/" + part, "long") +
                                EntryOf("/" + longest + "/x", "1") + EntryOf("/..", Data(3000, '2')) + Sentinel;
    Check({{archive, "export x.ctar >x.tar && mkdir tree && tar -xf x.tar -C tree", 0}});
    Check({{archive, "export -", 0, ReadFile("x.tar")}});
    for (const auto& [name, data] : {std::pair<std::string, std::string>("home", Data(5, 'h')),
                                     {"home/\xe9", "byte"},
                                     {"home-4608", "again"},
                                     {"q/" + part.substr(0, 245) + "-5632", "long"},
                                     {longest + "/x", "1"},
                                     {"entry-7680", Data(3000, '2')}})
        EXPECT_EQ(ReadFile("tree/" + name + ".savf"), data);
    EXPECT_EQ(fs::status("tree/home.savf").permissions(), static_cast<fs::perms>(0755));
    Check({{archive.substr(0, 2000), "export x.ctar", 1}, {archive.substr(0, 2000), "export -", 1}});
}

} // namespace
