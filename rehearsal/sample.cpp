// The sample store: the objects of a small server, with the names and dates that are hard for a backup.

#include <array>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>

#include "rehearsal.h"

namespace rehearsal {

namespace {

using std::filesystem::path;

constexpr std::time_t InTheYear2009 = 1'234'567'890; // 13 February
constexpr std::time_t Recently = -3 * 24 * 60 * 60;  // before now
constexpr std::size_t LargeLength = 3'000'017;

struct Sample {
    const char* name;         // a slash at the end makes a directory
    std::string content = ""; // of a file
    std::time_t changed = Recently;
    mode_t mode = 0644; // of a file
};

[[noreturn]] void Fail(const char* call, const path& file) {
    throw std::filesystem::filesystem_error(call, file, std::error_code(errno, std::generic_category()));
}

// Bytes without a pattern, the same in every run.
std::string LargeContent() {
    std::string bytes;
    bytes.reserve(LargeLength);
    for (std::uint64_t state = 88172645463325252; bytes.size() < LargeLength;) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        bytes += static_cast<char>(state >> 32 & 0xFF);
    }
    return bytes;
}

std::vector<Sample> Samples() {
    return {
        {"Security Data", "user profiles FRED QSECOFR\nprivate authorities\n"},
        {"System Configuration", "line ETHLINE\ncontroller QPADEV\n", InTheYear2009},
        {"QSYS.LIB/PAYROLL.LIB/EMPLOYEES.FILE/EMPLOYEES.MBR", "0001 FRED        1200\n0002 WILMA       1400\n"},
        {"QSYS.LIB/PAYROLL.LIB/MONTHLY.PGM", std::string(20480, '\x40'), InTheYear2009, 0755},
        {"QSYS.LIB/PAYROLL.LIB/TIMESTAMP.FILE/TIMESTAMP.MBR"},
        {"QSYS.LIB/ORDERS.LIB/ORDERS.FILE/ORDERS.MBR", std::string(5000, '\xF0')},
        {"QSYS.LIB/ORDERS.LIB/ORDERS.FILE/ARCHIVE.MBR", std::string(1055, '\xC1'), InTheYear2009},
        {"QSYS.LIB/ORDERS.LIB/PRINT.OUTQ/"},
        {"QSYS.LIB/QGPL.LIB/QCLSRC.FILE/STARTUP.MBR", "PGM\nSTRSBS SBSD(QINTER)\nENDPGM\n"},
        {"QSYS.LIB/QGPL.LIB/QBATCH.JOBD", "JOBQ(QBATCH)"},
        {"QDLS/LETTERS/INVOICE.DOC", "Dear customer,\r\n"},
        {"QDLS/LETTERS/REMINDER.DOC", "Dear customer, again,\r\n", InTheYear2009},
        {"QDLS/REPORTS/2009.DOC", "A good year.\r\n", InTheYear2009},
        {"home/FRED/notes.txt", "buy milk\n"},
        {"home/FRED/shopping list.txt", "milk\nbread\n"},
        {"home/FRED/it's mine.txt", "mine\n", InTheYear2009, 0600},
        {"home/FRED/12\" disc.txt", "The wall\n"},
        {"home/FRED/caf\xE9.txt", "cr\xE8me\n"},
        {"home/FRED/empty.dat"},
        {"home/FRED/nothing here/"},
        {"home/WILMA/projects/large.bin", LargeContent()},
        {"home/WILMA/projects/build.sh", "#!/bin/sh\nexit 0\n", InTheYear2009, 0755},
        {"home/WILMA/.profile", "PATH=/usr/bin\n"},
        {"etc/hosts", "127.0.0.1 localhost\n", InTheYear2009},
        {"tmp/"},
    };
}

void SetTime(const path& file, std::time_t changed) {
    const std::time_t seconds = changed > 0 ? changed : std::time(nullptr) + changed;
    const std::array<std::timespec, 2> times{{{seconds, 0}, {seconds, 0}}};
    if (::utimensat(AT_FDCWD, file.c_str(), times.data(), 0) != 0)
        Fail("utimensat", file);
}

void Make(const path& root, const Sample& sample) {
    const path file = root / sample.name;
    std::filesystem::create_directories(file.parent_path());
    if (!file.has_filename())
        return;
    std::ofstream stream(file, std::ios::binary);
    stream << sample.content;
    stream.close();
    if (!stream || ::chmod(file.c_str(), sample.mode) != 0)
        Fail("write", file);
    SetTime(file, sample.changed);
}

} // namespace

void MakeSample(const path& root) {
    for (const Sample& sample : Samples())
        Make(root, sample);
    std::filesystem::create_symlink("FRED/notes.txt", root / "home/current notes");
    SetTime(root / "home/FRED/nothing here", InTheYear2009);
    SetTime(root / "home/WILMA/projects", Recently);
    SetTime(root / "QDLS/REPORTS", InTheYear2009);
}

} // namespace rehearsal
