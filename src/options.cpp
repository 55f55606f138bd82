#include "options.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>

#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include "credentials.h"
#include "path_file.h"
#include "support.h"

namespace {

constexpr int OptionError = -1;
constexpr int HelpWanted = 1;

// What the handlers of the options have in common

// Numbers from 0 or 1 up to this are taken by --wait and --timeout.
constexpr int LargestTime = 99999;

// What a 32-bit int keeps of the number that the text begins with.
int ParseLeadingInt(const char* text) {
    return static_cast<int>(std::strtol(text, nullptr, 10));
}

bool ParseSwitch(const char* text) {
    return *text != '\0' && std::strchr("YyTt1", *text) != nullptr;
}

// The path of the archive that is the same file as `other` and would be destroyed by writing to that; nullptr when none
// is. Only a restore takes "-" for standard input.
const std::string* FindArchive(const Settings& settings, const struct stat& other) {
    for (const std::optional<std::string>* path : {&settings.backup_path, &settings.restore_path}) {
        if (!*path)
            continue;
        struct stat archive;
        const bool is_input = path == &settings.restore_path && **path == "-";
        if ((is_input ? ::fstat(STDIN_FILENO, &archive) : ::stat((*path)->c_str(), &archive)) == 0 &&
            (S_ISREG(archive.st_mode) || S_ISBLK(archive.st_mode)) && archive.st_dev == other.st_dev &&
            archive.st_ino == other.st_ino)
            return &**path;
    }
    return nullptr;
}

void LogArchiveAs(const char* path, const char* name) {
    LogError("%s: is the archive and cannot be %s too\n", path, name);
}

// Requires: the first pass over the options is done.
PathFileUse UseOf(const Settings& settings, PathFileUse in_backup) {
    return settings.restore_path ? PathFileUse::Restore : in_backup;
}

int OpenPathFile(Stream& stream, const char* path, PathFileUse use) {
    stream.reset();
    stream.reset(std::fopen(path, "r"));
    if (!stream) {
        LogError("fopen(%s): %s\n", path, std::strerror(errno));
        return OptionError;
    }
    for (const std::string& mistake : FindMistakes(stream.get(), use))
        LogError("%s: %s\n", path, mistake.c_str());
    return 0;
}

int OpenDescriptor(Stream& stream, const char* text) {
    stream.reset();
    long number;
    const bool whole = ParseAnyBase(text, std::strtol, number);
    const int descriptor = static_cast<int>(number);
    if (!whole || descriptor != number) {
        LogError("'%s': can't parse file descriptor\n", text);
        return OptionError;
    }
    stream.reset(::fdopen(descriptor, "w"));
    if (!stream) {
        LogError("fdopen(%d): %s\n", descriptor, std::strerror(errno));
        return OptionError;
    }
    ::setlinebuf(stream.get());
    return 0;
}

// The options

int SetBackup(Settings& settings, char* argument) {
    settings.backup_path = argument;
    return 0;
}

int SetCredentials(Settings& settings, char* argument) {
    std::optional<Credentials> credentials = ReadCredentials(argument);
    HidePassphrase(argument);
    settings.user = credentials ? std::optional(std::move(credentials->user)) : std::nullopt;
    settings.password = credentials ? std::optional(std::move(credentials->password)) : std::nullopt;
    return credentials ? 0 : OptionError;
}

// Opening the catalog empties it, so it is compared with the archive before that.
int SetCatalog(Settings& settings, char* argument) {
    struct stat status;
    if (::stat(argument, &status) == 0 && FindArchive(settings, status) != nullptr) {
        LogArchiveAs(argument, "the catalog");
        return OptionError;
    }
    settings.catalog.reset(std::fopen(argument, "w"));
    if (settings.catalog)
        return 0;
    LogError("Failed to open catalog file %s\n", argument);
    return OptionError;
}

// The texts are those that CHGPERIOD wants.
int SetDate(Settings& settings, char* argument) {
    long long epoch;
    bool good = ParseAnyBase(argument, std::strtoll, epoch);
    settings.cutoff = epoch;
    const std::time_t instant = epoch;
    std::tm local;
    if (::localtime_r(&instant, &local) != nullptr) {
        const int year = (local.tm_year % 100 + 100) % 100;
        settings.save.changed_date = FormatText("%02d/%02d/%02d", local.tm_mon + 1, local.tm_mday, year);
        settings.save.changed_clock = FormatText("%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
    } else {
        good = false; // a year that no calendar holds
    }
    if (!good)
        LogError("'%s': can't parse timestamp\n", argument);
    return good ? 0 : OptionError;
}

int SetExclude(Settings& settings, char* argument) {
    return OpenPathFile(settings.exclude, argument, UseOf(settings, PathFileUse::BackupExclude));
}

int WantHelp(Settings&, char*) {
    return HelpWanted;
}

int SetInclude(Settings& settings, char* argument) {
    return OpenPathFile(settings.include, argument, UseOf(settings, PathFileUse::BackupInclude));
}

int SetList(Settings& settings, char* argument) {
    return OpenDescriptor(settings.list, argument);
}

int SetMaxBlockSize(Settings& settings, char* argument) {
    unsigned long long size;
    const bool whole = ParseAnyBase(argument, std::strtoull, size);
    settings.max_block_size = size;
    if (!whole)
        LogError("'%s': can't parse block size\n", argument);
    return whole ? 0 : OptionError;
}

int SetNotBackedUp(Settings& settings, char* argument) {
    return OpenDescriptor(settings.not_backed_up, argument);
}

int SetPrecheck(Settings& settings, char* argument) {
    settings.save.precheck = ParseSwitch(argument);
    return 0;
}

int SetRestore(Settings& settings, char* argument) {
    settings.restore_path = argument;
    return 0;
}

int SetServer(Settings& settings, char* argument) {
    settings.server = argument;
    return 0;
}

int CountTest(Settings& settings, char*) {
    ++settings.test_count;
    return 0;
}

int SetVerbose(Settings& settings, char* argument) {
    if (argument == nullptr) {
        ++settings.transport.verbosity;
        return 0;
    }
    long level;
    const bool whole = ParseAnyBase(argument, std::strtol, level);
    settings.transport.verbosity = static_cast<int>(level);
    if (!whole)
        LogError("verbose value must be a number\n");
    return whole ? 0 : OptionError;
}

int SetWait(Settings& settings, char* argument) {
    const int seconds = ParseLeadingInt(argument);
    if (seconds < -1 || seconds > LargestTime) {
        LogMessageTo(stderr, "invalid argument: --wait %s\n", argument);
        return OptionError;
    }
    settings.save.wait = seconds == -1 ? "*NOMAX" : argument;
    return 0;
}

int SetThreading(Settings& settings, char* argument) {
    settings.threading = ParseSwitch(argument);
    return 0;
}

int SetTimeout(Settings& settings, char* argument) {
    const int minutes = ParseLeadingInt(argument);
    if (minutes < 1 || minutes > LargestTime) {
        LogMessageTo(stderr, "invalid argument: --timeout %s\n", argument);
        return OptionError;
    }
    settings.transport.timeout = minutes;
    return 0;
}

struct OptionRow {
    const char* name;
    char letter;
    int has_argument; // as in struct option
    int (*handle)(Settings& settings, char* argument);
    const char* help;
};

// The order is that of the usage text.
constexpr std::array<OptionRow, 18> OptionRows{{
    {"backup", 'b', required_argument, SetBackup,
     "Create a TAR backup archive.  Follow with a path to contain the output."},
    {"credentials", 'c', required_argument, SetCredentials,
     "Follow with the credentials to login to the server in the form \"username:where:key\" .  where explains where "
     "the passphrase may be found as follows.  If where is here, then key is the actual passphrase as in "
     "\"fred:here:passphrase\".  If where is env, then key is the name of an environment variable which contains the "
     "passphrase as in \"fred:env:PASSPHRASE\".  If where is fd, then key is the number of a file descriptor from "
     "which the first line read is the passphrase as in \"fred:fd:4\".  If where is file, then key is the name of a "
     "file from which the first line read is the passphrase as in \"fred:file:keyFilename\"."},
    {"Catalog", 'C', required_argument, SetCatalog,
     "Create a catalog file containing a list of backed up files.  Follow with a path to contain the output."},
    {"date", 'd', required_argument, SetDate,
     "Follow with an epoch.  During backup, any objects that have a timestamp before the given epoch will not be "
     "included in the backup."},
    {"exclude", 'e', required_argument, SetExclude,
     "Follow with a path to a file which contains full paths which should be excluded from the backup or restore, one "
     "full path per line."},
    {"help", 'h', no_argument, WantHelp, "This help."},
    {"include", 'i', required_argument, SetInclude,
     "Follow with a path to a file which contains full paths which should be included in the backup or restore, one "
     "full path per line."},
    {"list", 'l', required_argument, SetList,
     "Create a list of the objects on server under the path given by the include option.  Follow with a file "
     "descriptor to which to write the list of full paths -- one per line."},
    {"maxblocksize", 'm', required_argument, SetMaxBlockSize, "Debugging option."},
    {"notbackedup", 'n', required_argument, SetNotBackedUp,
     "Follow with a file descriptor to which to write the list of full paths -- one per line -- of objects not backed "
     "up by backup command."},
    {"precheck", 'p', required_argument, SetPrecheck, "Sets the precheck option to either yes or no"},
    {"restore", 'r', required_argument, SetRestore,
     "Restore a TAR archive.  Follow with a path from which to read the archive to restore or \"-\" to read the "
     "archive from stdin."},
    {"server", 's', required_argument, SetServer, "Follow with the host name or IP address of the server."},
    {"test", 't', no_argument, CountTest, "Test the connection with the given server."},
    {"verbose", 'v', optional_argument, SetVerbose, "Produce verbose output."},
    {"wait", 'w', required_argument, SetWait,
     "Follow with a number of seconds (0-99999) to wait to establish a checkpoint or enter -1 to wait indefinately"},
    {"threading", 'x', required_argument, SetThreading, "Follow with 0 to disable threading"},
    {"timeout", 'z', required_argument, SetTimeout, "Timeout to wait for response in minutes"},
}};

// "b:c:C:d:e:hi:l:m:n:p:r:s:tv::w:x:z:"
std::string ShortOptions() {
    std::string letters;
    for (const OptionRow& row : OptionRows)
        letters.append(1, row.letter).append(static_cast<std::size_t>(row.has_argument), ':');
    return letters;
}

// The long table, ended by a row of zeros.
std::array<option, OptionRows.size() + 1> LongOptions() {
    std::array<option, OptionRows.size() + 1> options{};
    for (std::size_t i = 0; i < OptionRows.size(); ++i)
        options[i] = {OptionRows[i].name, OptionRows[i].has_argument, nullptr, OptionRows[i].letter};
    return options;
}

// Returns the error state after all options: 0 when they are good. A first pass, which says nothing, looks only for the
// modes that decide how other options are judged.
int ParseOptions(int argc, char** argv, Settings& settings, bool first_pass) {
    const std::string letters = ShortOptions();
    const auto options = LongOptions();
    int state = 0;
    ::optind = 0; // start over
    ::opterr = first_pass ? 0 : 1;
    // With this variable set getopt_long would take every option after a stray word for another word, and a
    // passphrase there would be shown as an unknown argument.
    ::unsetenv("POSIXLY_CORRECT");
    for (;;) {
        const int result = ::getopt_long(argc, argv, letters.c_str(), options.data(), nullptr);
        if (result == -1)
            return state;
        if (first_pass && result != 'b' && result != 'r')
            continue;
        const int error = HandleOption(result, ::optarg, settings);
        if (error != 0)
            state = error;
    }
}

// Logs what is missing or too much once the options are parsed. Returns whether a run may start.
bool CheckCommandLine(int state, std::span<char* const> operands, const Settings& settings) {
    for (const char* operand : operands)
        LogError("unknown argument: %s\n", operand);
    if (!operands.empty() || state != 0)
        return false;
    if (!settings.server) {
        LogError("you must provide a server name\n");
        return false;
    }
    if (!settings.user || !settings.password) {
        LogError("you must provide login credentials\n");
        return false;
    }
    return true;
}

// Whether a file that the run reads or writes is the archive as well, through whatever links.
bool SharesArchive(const Settings& settings) {
    struct Other {
        int descriptor;
        const char* name;
    };
    const auto number = [](const Stream& stream) { return stream ? ::fileno(stream.get()) : -1; };
    for (const Other& other : {Other{number(settings.catalog), "the catalog"},
                               {number(settings.not_backed_up), "the list of what was not backed up"},
                               {number(settings.list), "the list"},
                               {number(settings.include), "the include file"},
                               {number(settings.exclude), "the exclude file"},
                               {STDOUT_FILENO, "standard output"},
                               {STDERR_FILENO, "standard error"}}) {
        struct stat status;
        if (::fstat(other.descriptor, &status) != 0)
            continue;
        if (const std::string* const path = FindArchive(settings, status)) {
            LogArchiveAs(path->c_str(), other.name);
            return true;
        }
    }
    return false;
}

} // namespace

int HandleOption(int result, char* argument, Settings& settings) {
    for (const OptionRow& row : OptionRows)
        if (row.letter == result)
            return row.handle(settings, argument);
    if (result != '?') { // getopt_long has reported that itself
        LogError("getopt(): ");
        if (result >= 0 && result <= UCHAR_MAX && std::isprint(result) != 0)
            LogMessageTo(stderr, "%c\n", result);
        else
            LogMessageTo(stderr, "0x%02X\n", static_cast<unsigned>(result));
    }
    return OptionError;
}

int ParseCommandLine(int argc, char** argv, Settings& settings) {
    ParseOptions(argc, argv, settings, true);
    const int state = ParseOptions(argc, argv, settings, false);
    const auto first = static_cast<std::size_t>(::optind);
    const std::span<char* const> operands = std::span(argv, static_cast<std::size_t>(argc)).subspan(first);
    if (CheckCommandLine(state, operands, settings) && !SharesArchive(settings))
        return 0;
    Usage();
    return -1;
}

// The usage text

namespace {

constexpr std::size_t UsageMargin = 70; // characters of a line

// Where the help texts start: after "  -b, --backup :  " with the longest name.
std::size_t UsageColumn() {
    std::size_t longest = 0;
    for (const OptionRow& row : OptionRows)
        longest = std::max(longest, std::strlen(row.name));
    return std::strlen("  -b, -- :  ") + longest;
}

// Writes one option's line and help text, broken at white space.
void PrintUsageRow(const OptionRow& row, std::size_t column) {
    const int padding = static_cast<int>(column - std::strlen("  -b, -- :  ") - std::strlen(row.name));
    std::string line = FormatText("  -%c, --%s %*s:  ", row.letter, row.name, padding, "");
    std::string_view help = row.help != nullptr ? row.help : "";
    for (;;) {
        const std::size_t start = line.size();
        line += help.substr(0, UsageMargin - start);
        help.remove_prefix(line.size() - start);
        if (help.empty())
            break;
        const std::size_t cut = line.find_last_of(" \t\n\v\f\r");
        if (cut == line.npos || cut < start) {
            LogMessageTo(stderr, "%s-\n", line.c_str());
            line.clear();
        } else {
            LogMessageTo(stderr, "%.*s\n", static_cast<int>(cut), line.c_str());
            line.erase(0, cut + 1);
        }
        line.insert(0, column, ' ');
    }
    LogMessageTo(stderr, "%s\n", line.c_str());
}

} // namespace

void Usage() {
    LogMessageTo(stderr, "usage: %s [ options ]\n", ProgramName);
    const std::size_t column = UsageColumn();
    for (const OptionRow& row : OptionRows)
        PrintUsageRow(row, column);
}
