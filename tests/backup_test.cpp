#include "backup.h"

#include <algorithm>
#include <cstring>
#include <regex>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "backup_plan.h"
#include "listing.h"
#include "test_support.h"

namespace {

using testing::AllOf, testing::EndsWith, testing::StartsWith;

// The object tree

TEST(Tree, KindsOfPaths) {
    std::string path(PathCapacity - 3, 'x');
    AppendToPath(path, "/name");
    EXPECT_EQ(path.size(), PathCapacity - 1);
    for (const char* const special : {"/Security Data", "/System Configuration"})
        EXPECT_EQ(ClassifyPath(special), ObjectKind::System) << special;
    for (const char* const plain : {"/Security Data/x", "/QDLS/FOLDER", "/QSYS.LIB", "/qdls"})
        EXPECT_EQ(ClassifyPath(plain), ObjectKind::Ifs) << plain;
    EXPECT_EQ(ClassifyPath("/QDLS"), ObjectKind::Qdls);
    EXPECT_EQ(ClassifyPath("/QSYS.LIB/A.LIB"), ObjectKind::Library);
}

std::string Dump(const ObjectNode& dir) {
    Capture capture;
    DumpTree(stdout, dir);
    return capture.Take();
}

TEST(Tree, RollsUpAdoptsAndDumps) {
    const ObjectTree source = NewDirectoryNode(nullptr, "", 0, 0, {});
    ObjectNode& d = AppendDirectory(*source, "/D", 040755, 4, {});
    ObjectNode& s = AppendDirectory(d, "/S", 040755, 4, {});
    AppendFile(s, "/g", 0100644, 10, {});
    AppendFile(d, "/f", 0100644, 100, {});
    EXPECT_EQ(source->size, 118U);
    EXPECT_EQ(source->count, 2U);
    EXPECT_EQ(Dump(d), "/D/S/g\n/D/f\n");

    const ObjectTree kind = NewDirectoryNode(nullptr, "", 0, 0, {});
    AdoptDirectory(*kind, s);
    AdoptFile(*kind, *d.first_file);
    EXPECT_EQ(kind->size, 114U);
    EXPECT_EQ(kind->count, 2U);
    EXPECT_EQ(kind->first_file->name, "/D/f");
    EXPECT_EQ(Dump(*kind->first_dir), "/D/S/g\n"); // through the source's records
    ReleaseName(*kind->first_dir);
    EXPECT_EQ(kind->first_dir->name, "/D/S"); // borrowed: kept
    MarkPartial(s);
    EXPECT_TRUE(d.partial && source->partial && !kind->partial);
}

TEST(Tree, AMillionSiblingsNeitherOverflowNorWeighMuch) {
    EXPECT_LE(sizeof(ObjectNode), 136U); // with the allocator's share below 160 bytes
    EXPECT_LE(sizeof(ObjectFile), 136U);
    const ObjectTree root = NewDirectoryNode(nullptr, "", 0, 0, {});
    for (int i = 0; i < 1000000; ++i) {
        AppendFile(*root, "/f", 0, 1, {});
        AppendDirectory(*root, "/d", 0, 1, {});
    }
    EXPECT_EQ(root->count, 1000000U);
}

// Listing lines

// What is wrong with the line, or its mode, size, time, name and leftover; "$" stands for a carriage return.
TEST(Listing, LinesTakenApart) {
    std::string table(R"(drwxr-xr-x 2 QSYS 0 8192 Mar 5 14:07 DIR$|40733 8192 2026 3 5 14:7 <DIR> <>
-rw-r--r--   1 A        B             10 Jan  2  2009 x$|100622 10 2009 1 2 0:0 <x> <>
drwx---rwx   1 QPGMR    0          20480 Oct 31 23:59 TIMESTAMP$|40703 20480 2025 10 31 23:59 <TIMESTAMP> <>
lrwxrwxrwx 1 A B 3 Jan 2 2009 l -> t$|100733 3 2009 1 2 0:0 <l> <>
lrwxrwxrwx 1 A B 3 Jan 2 2009 l -> t and more$|100733 3 2009 1 2 0:0 <l> <and more$>
---s--s--s 1 A B 3 Jan 2 2009 s$|107111 3 2009 1 2 0:0 <s> <>
-rw-r--r-- 1 A B 3 january 2 2009 a name  with blanks $|100622 3 2009 1 2 0:0 <a name  with blanks > <>
-rw-r--r-- 1 A B 3 Jan 2 2009 bare|100622 3 2009 1 2 0:0 <bar> <e>
-rw-r--r-- 1 A B big Jan 2 2009 x$|100622 0 2009 1 2 0:0 <x> <>
-rw-r--r-- 1 A B 18446744073709551616 May 1 00:00 x$|100622 18446744073709551615 2026 5 1 0:0 <x> <>
|can't parse date
$|can't parse date
total 12$|can't parse date
-rw-r--r-- 1 A B 3 Foo 2 2009 x$|can't parse date
-rw-r--r-- 1 A B 3 Jan 32 2009 x$|can't parse date
-rw-r--r-- 1 A B 3 Jan 2 24:00 x$|can't parse time
-rw-r--r-- 1 A B 3 Jan 2 12:x x$|can't parse time
-rw-r--r-- 1 A B 3 Jan 2 then x$|can't parse year
-rw-r--r-- 1 A B 3 Jan 2 2009$|can't parse name
-rw-r--r-- 1 A B 3 Jan 2 2009 a/b$|can't parse name
-rw-r--r-- 1 A B 3 Jan 2 2009 a$b$|can't parse name
)");
    std::replace(table.begin(), table.end(), '$', '\r');
    std::istringstream rows(table);
    const std::tm now{0, 0, 0, 15, 4, 126, 0, 0, 0, 0, nullptr}; // 15 May 2026
    for (std::string line, wanted; std::getline(rows, line, '|') && std::getline(rows, wanted);) {
        ListingEntry entry;
        const std::optional<ListingFailure> failure = ParseListingLine(line, now, entry);
        const CalendarTime& t = entry.mtime;
        const std::string date = FormatText("%d %d %d %d:%d", t.year + 1900, t.month + 1, t.day, t.hour, t.minute);
        std::ostringstream found;
        found << std::oct << entry.mode << std::dec << " " << entry.size << " " << date << " <" << entry.name << "> <"
              << entry.leftover << ">";
        EXPECT_EQ(failure ? failure->what : found.str(), wanted) << line;
        EXPECT_EQ(failure ? failure->text : line, line);
    }
}

// The same epochs as mktime, also on the days on which clocks are put forward or back.
TEST(LocalTimes, AreThoseOfTheSystem) {
    for (const char* const zone : {"UTC", "EST5EDT,M3.2.0,M11.1.0", "XXX-5:45", "MID3MDT,M3.2.0/0,M11.1.0/0"}) {
        ::setenv("TZ", zone, 1);
        ::tzset();
        LocalTimes times;
        for (int day = 0; day < 800; ++day)
            for (int minute = day % 30; minute < 24 * 60; minute += 30) {
                std::tm time{};
                time.tm_year = 124;
                time.tm_mday = 1 + day;
                time.tm_isdst = -1;
                std::mktime(&time); // the date
                time.tm_hour = minute / 60;
                time.tm_min = minute % 60;
                time.tm_isdst = -1;
                const CalendarTime packed = PackTime(time);
                ASSERT_EQ(times.ToEpoch(packed), std::mktime(&time)) << zone << " " << day << " " << minute;
            }
    }
    ::setenv("TZ", "UTC", 1);
    ::tzset();
}

// The listing callback

// The names in a directory, with a slash after those of directories and a mark after the partial ones.
std::string Children(const ObjectNode& dir) {
    std::string names;
    for (const ObjectNode* child = dir.first_dir.get(); child != nullptr; child = child->next.get())
        names += child->name + (child->partial ? "/! " : "/ ");
    for (const ObjectFile* file = dir.first_file.get(); file != nullptr; file = file->next.get())
        names += file->name + " ";
    return names;
}

struct Listing {
    Settings settings;
    ObjectTree root = NewDirectoryNode(nullptr, "/", 0, 0, {});
    ListingContext context{settings};

    // Lists in these chunks into a root, or into a directory below it.
    std::string List(const std::string& name, bool is_root, const std::vector<std::string>& chunks) {
        root->name = name;
        ObjectNode& dir = is_root ? *root : AppendDirectory(*root, name, 040755, 0, {});
        Capture capture;
        context.path = is_root ? name.substr(0, std::max<std::size_t>(1, name.rfind('/'))) : name;
        BeginListing(context, dir);
        for (std::string chunk : chunks) {
            int length = static_cast<int>(chunk.size());
            EXPECT_EQ(ListingCallback(&context, chunk.data(), &length), 0);
            EXPECT_LE(length, 0);
        }
        return capture.Take() + Children(dir);
    }
};

const std::string File = "-rw-r--r-- 1 A B 3 Jan 2 2009 ";
const std::string Dir = "drwxr-xr-x 1 A B 3 Jan 2 2009 ";

TEST(ListingCallback, AssemblesLinesFromChunks) {
    EXPECT_EQ(Listing().List("/d", false, {File + "a\r\n" + Dir + "b\r\n"}), "/b/ /a ");
    EXPECT_EQ(Listing().List("/d", false, {File.substr(0, 5), File.substr(5) + "a\r\n"}), "/a ");
    EXPECT_EQ(Listing().List("/d", false, {File + "a\r", "\n"}), "/a ");
    const std::string longest(4094 - File.size(), 'x');
    EXPECT_EQ(Listing().List("/d", false, {File + longest + "\r\n"}), "/" + longest + " ");
    for (const int verbosity : {4, 5}) {
        Listing shown;
        shown.settings.transport.verbosity = verbosity;
        EXPECT_EQ(shown.List("/d", false, {File + "a\r\n"}), (verbosity == 5 ? File + "a\r\n" : "") + "/a ");
    }
    Listing torn; // of a line in three chunks the first part is lost
    EXPECT_EQ(torn.List("/d", false, {File.substr(0, 5), File.substr(5, 5), File.substr(10) + "a\r\n"}),
              "vondral[backup.cpp]: can't parse date: " + File.substr(5) + "a\n");
    EXPECT_EQ(torn.context.parse_errors, 1);
    Listing fresh; // nothing of one listing reaches the next
    fresh.List("/d", false, {File.substr(0, 5)});
    EXPECT_EQ(fresh.List("/e", false, {File + "a\r\n"}), "/a ");
}

TEST(ListingCallback, AnOddLineCostsOneEntryAndMarksTheDirectory) {
    Listing listing;
    EXPECT_EQ(listing.List("/d", false, {File + "a\r\nrubbish\r\n" + File + "b\r\n"}),
              "vondral[backup.cpp]: can't parse date: rubbish\n/a /b ");
    EXPECT_TRUE(listing.root->first_dir->partial);
    EXPECT_EQ(listing.context.parse_errors, 1);
    EXPECT_EQ(Listing().List("/d", false, {Dir + ".\r\n" + Dir + "..\r\n" + File + ".x\r\n"}), "/.x ");
}

TEST(ListingCallback, EndsTheProgramForAnEndlessLine) {
    const auto feed = [](std::string chunk, const std::string& carry) {
        const Settings settings;
        ListingContext context{settings};
        context.carry = carry;
        int length = static_cast<int>(chunk.size());
        ListingCallback(&context, chunk.data(), &length);
    };
    EXPECT_EXIT(feed(std::string(4096, 'x'), ""), testing::ExitedWithCode(255), "listing line too long");
    EXPECT_EXIT(feed(std::string(96, 'x') + "\n", std::string(4000, 'x')), testing::ExitedWithCode(255),
                "listing line too long");
}

TEST(ListingCallback, PlacesByTheDirectoryListed) {
    const std::string server =
        Dir + "QSYS.LIB\r\n" + Dir + "QDLS\r\n" + Dir + "home\r\n" + File + "f\r\n" + Dir + "X.LIB\r\n";
    EXPECT_EQ(Listing().List("/", true, {server}), "/QSYS.LIB/! /home/ /QDLS /f /X.LIB ");
    EXPECT_EQ(Listing().List("/h*", true, {server}), "/home/ ");
    EXPECT_EQ(Listing().List("/Q*", true, {server}), "/QSYS.LIB/! /QDLS ");
    EXPECT_EQ(Listing().List("/a/h*", true, {server}), "/a/home/ ");
    EXPECT_EQ(Listing().List("/none", true, {server}), "");
    const std::string libraries = Dir + "A.LIB\r\n" + Dir + "QSYS.LIB\r\n" + File + "X.FILE\r\n";
    EXPECT_EQ(Listing().List("/QSYS.LIB", false, {libraries}), "/A.LIB ");
    EXPECT_EQ(Listing().List("/QSYS.LIB/A*", true, {libraries}), "/QSYS.LIB/A.LIB ");
    Listing dated;
    dated.settings.cutoff = 0;
    EXPECT_EQ(dated.List("/QSYS.LIB", false, {libraries}), "/A.LIB/ ");
    Listing named; // a library named by an include path is one object all the same
    named.settings.cutoff = 0;
    EXPECT_EQ(named.List("/QSYS.LIB/A*", true, {libraries}), "/QSYS.LIB/A.LIB ");
}

TEST(ListingCallback, ExcludesAndCutsOff) {
    const TempDir temp;
    WriteFile(temp / "exclude", "/d/no\n//top\n");
    Listing listing;
    listing.settings.exclude.reset(std::fopen((temp / "exclude").c_str(), "r"));
    listing.settings.transport.verbosity = 1;
    EXPECT_EQ(listing.List("/d", false, {File + "no\r\n" + File + "yes\r\n"}), "vondral: /d/no: excluded\n/yes ");
    EXPECT_TRUE(listing.root->first_dir->partial);
    EXPECT_EQ(listing.context.path, "/d");
    listing.root->first_file.reset();
    listing.root->last_file = nullptr;
    // paths directly below the server's root begin with two slashes here
    EXPECT_EQ(listing.List("/", true, {File + "top\r\n"}), "vondral: //top: excluded\n/d/! ");

    Listing dated;
    dated.settings.cutoff = LocalTimes().ToEpoch({109, 0, 4}); // when "new" was changed
    dated.settings.transport.verbosity = 1;
    EXPECT_EQ(
        dated.List("/d", false, {File + "old\r\n" + Dir + "olddir\r\n" + "-rw-r--r-- 1 A B 3 Jan 4 2009 new\r\n"}),
        "vondral: excluding /old since it's older than given time\n/olddir/ /new ");
    EXPECT_FALSE(dated.root->first_dir->partial);
}

// The backup list

std::string Placed(const ObjectNode& root, const PlanOptions& options) {
    const BackupPlan plan = BuildBackupPlan(root, options);
    std::string placed;
    for (const ObjectTree& tree : plan.trees)
        placed += Children(*tree) + "| ";
    return placed + std::to_string(plan.objects_found);
}

TEST(BackupPlan, SortsByKindAndDecidesWhatIsOneUnit) {
    const ObjectTree root = NewDirectoryNode(nullptr, "", 0, 0, {});
    AppendFile(*root, "/Security Data", 0100600, 0, {});
    AppendFile(*root, "/QDLS", 0100755, 0, {});
    ObjectNode& libraries = AppendDirectory(*root, "/QSYS.LIB", 040755, 0, {});
    AppendFile(libraries, "/A.LIB", 0100755, 5, {});
    MarkPartial(libraries);
    ObjectNode& home = AppendDirectory(*root, "/home", 040755, 10, {});
    AppendFile(AppendDirectory(home, "/a", 040755, 10, {}), "/f", 0100644, 100, {});
    AppendFile(home, "/g", 0100644, 1, {});
    AppendDirectory(home, "/empty", 040755, 10, {});
    ReleaseName(AppendDirectory(*root, "/gone", 040755, 0, {}));
    EXPECT_EQ(Placed(*root, {131}), "/Security Data | /QDLS | /QSYS.LIB/A.LIB | /home/ | 5");
    EXPECT_EQ(Placed(*root, {130}), // all of /home is larger
              "/Security Data | /QDLS | /QSYS.LIB/A.LIB | /home/a/ /home/empty/ /home/g | 5");
    EXPECT_EQ(Placed(*root, {0}), "/Security Data | /QDLS | /QSYS.LIB/A.LIB | /home/empty/ /home/g /home/a/f | 5");
    EXPECT_EQ(Placed(*root, {0, true}), // what contains nothing new is left out
              "/Security Data | /QDLS | /QSYS.LIB/A.LIB | /home/g /home/a/f | 5");
    ObjectNode& dated = AppendDirectory(libraries, "/B.LIB", 0100755, 0, {});
    AppendDirectory(libraries, "/C.LIB", 0100755, 0, {});
    AppendFile(dated, "/X.FILE", 0100755, 0, {});
    EXPECT_EQ(Placed(*root, {0, true}),
              "/Security Data | /QDLS | /QSYS.LIB/A.LIB /QSYS.LIB/B.LIB | /home/g /home/a/f | 5");
}

// Writing the archive

TEST(ArchiveWriter, WritesWholeBlocksHoweverTheDataCome) {
    for (const std::vector<int>& pieces :
         {std::vector<int>{700, 300}, {1024}, {1, 510, 1, 513}, {511}, {512}, {65536, 100}, {3, 65536, 65536}}) {
        const TempDir temp;
        ArchiveFile archive{Descriptor(::open((temp / "a").c_str(), O_RDWR | O_CREAT, 0600)), {}};
        ArchiveWriter writer{archive};
        std::string sent;
        for (const int piece : pieces) {
            std::string data(static_cast<std::size_t>(piece), static_cast<char>('a' + piece % 26));
            sent += data;
            int count = piece;
            EXPECT_EQ(ArchiveWriteCallback(&writer, data.data(), &count), 0);
            EXPECT_EQ(count, 0);
        }
        const std::size_t whole = sent.size() / 512 * 512;
        EXPECT_EQ(ReadFile(temp / "a"), sent.substr(0, whole));
        EXPECT_EQ(writer.bytes, static_cast<std::int64_t>(whole));
        EXPECT_EQ(std::string(writer.block.data(), static_cast<std::size_t>(writer.pending)), sent.substr(whole));
    }
}

TEST(ArchiveWriter, AnEntryWithoutDataLeavesNothing) {
    const TempDir temp;
    const std::string sentinel(512, '\0');
    WriteFile(temp / "a", sentinel);
    ArchiveFile archive{Descriptor(::open((temp / "a").c_str(), O_RDWR | O_APPEND)), {}};
    ArchiveWriter writer{archive};
    EXPECT_TRUE(CloseEntry(writer, 512, [](std::int64_t) { return CtarBlock{'h'}; }).empty());
    EXPECT_EQ(ReadFile(temp / "a"), sentinel);
}

TEST(ArchiveWriter, ReportsWhatItCannotWrite) {
    ArchiveFile archive{Descriptor(::open("/dev/full", O_WRONLY)), {}};
    ArchiveWriter writer{archive}, empty{archive};
    std::string data(1000, 'x');
    int count = 1000;
    Capture capture;
    EXPECT_EQ(ArchiveWriteCallback(&writer, data.data(), &count), 1);
    EXPECT_EQ(count, 1000);
    EXPECT_THAT(capture.Take(),
                AllOf(StartsWith("vondral[backup.cpp]: write(, 0x"), EndsWith(", -1): No space left on device\n")));
    count = 500;
    EXPECT_EQ(ArchiveWriteCallback(&writer, data.data(), &count), 0);
    count = 12; // completes the block, which stays pending
    Capture again;
    EXPECT_EQ(ArchiveWriteCallback(&writer, data.data(), &count), 0);
    EXPECT_EQ(again.Take(), "vondral[backup.cpp]: write(): No space left on device\n");
    EXPECT_EQ(writer.pending, 512);
    EXPECT_EQ(writer.bytes, 0);
    archive.descriptor.Reset();
    std::string failures;
    for (ArchiveWriter* const closing : {&writer, &empty})
        for (const ArchiveFailure& failure : CloseEntry(*closing, 0, [](std::int64_t) { return CtarBlock{'h'}; }))
            failures += DescribeFailure(failure) + "\n";
    const std::string cut = "lseek(): closed\n";
    EXPECT_EQ(std::regex_replace(failures, std::regex("Bad file descriptor"), "closed"),
              "write(): closed\n" + cut + "CTAR sentinel failed write(): closed\n" + cut +
                  "CTAR header failed to update: closed\n" + cut + cut);
}

} // namespace
