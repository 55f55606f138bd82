#include "vondral.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include "backup.h"
#include "options.h"
#include "path_file.h"
#include "restore.h"
#include "settings.h"

// List mode

namespace {

constexpr std::size_t LineLimit = 4095; // characters; of a pending line, and of a path as formatted

// The ninth field of a line in the long form (mode, links, owner, group, size, month, day, time or year,
// name), up to its first blank; empty when the line ends before.
std::string_view NinthField(std::string_view line) {
    if (line.empty() || !IsSpace(line.front())) // a line that begins with white space has an empty first field
        ConsumeField(line);
    for (int field = 0; field < 7; ++field)
        ConsumeField(line);
    return ConsumeField(line);
}

// Prints one object; false when its path is too long.
bool PrintListed(const std::string& include_path, std::string_view line) {
    const std::string_view name = NinthField(line);
    SkipSpace(line);
    const bool is_directory = line.starts_with('d');
    const char* const separator = include_path.ends_with('/') ? "" : "/";
    std::string path =
        FormatText("%s%s%.*s", include_path.c_str(), separator, static_cast<int>(name.size()), name.data());
    if (path.size() > LineLimit) {
        LogMessageTo(stderr, "%spath too long\n", FailureHead().c_str());
        return false;
    }
    if (path.size() == LineLimit)
        path.pop_back();
    if (!StartsWithIgnoringCase(path, LibraryPrefix))
        std::fprintf(RunSettings.list.get(), "%s%s\n", path.c_str(), is_directory ? "/" : "");
    else if (name.size() >= LibrarySuffix.size() &&
             StartsWithIgnoringCase(name.substr(name.size() - LibrarySuffix.size()), LibrarySuffix))
        std::fprintf(RunSettings.list.get(), "%s\n", path.c_str());
    else if (RunSettings.verbosity >= 1)
        LogMessageTo(stderr, "%s: ignoring non-library %.*s under /QSYS.LIB\n", ProgramName,
                     static_cast<int>(name.size()), name.data());
    return true;
}

int ReportOverflow(SourcePlace place = SourcePlace::Here()) {
    LogMessageTo(stderr, "%sbuffer overflow\n", FailureHead(place).c_str());
    return -1;
}

} // namespace

int ListPrinter(void* argument, char* data, int* count) {
    auto* const context = static_cast<ListPrinterContext*>(argument);
    if (context == nullptr) {
        LogMessageTo(stderr, "%sbad argument\n", FailureHead().c_str());
        return -1;
    }
    std::string_view rest(data, static_cast<std::size_t>(*count));
    if (RunSettings.verbosity >= 1)
        std::fwrite(rest.data(), 1, rest.size(), stdout);
    for (;;) {
        if (context->between_lines)
            SkipSpace(rest);
        if (rest.empty())
            return 0;
        const std::size_t length = std::min(rest.find('\r'), rest.size());
        context->pending.append(rest.substr(0, length));
        context->between_lines = length < rest.size();
        // A line that is ended may fill the buffer to its last byte; one that goes on may not.
        if (context->pending.size() > (context->between_lines ? LineLimit + 1 : LineLimit))
            return ReportOverflow();
        if (!context->between_lines)
            return 0;
        rest.remove_prefix(length);
        if (!PrintListed(context->include_path, context->pending))
            return -1;
        context->pending.clear();
    }
}

namespace {

// A line that the server began and did not end would be missing from the list without a word.
bool EndsWithWholeLine(const ListPrinterContext& context) {
    if (context.between_lines || context.pending.empty())
        return true;
    LogMessageTo(stderr, "%sunfinished line: %s\n", FailureHead().c_str(), context.pending.c_str());
    return false;
}

} // namespace

int ListMode(FtpSession* session) {
    std::FILE* const stream = RunSettings.include.get();
    std::string include = "/";
    if (stream != nullptr && !ReadPathLine(include, stream)) {
        LogMessageTo(stderr, "%s: empty include list\n", ProgramName);
        return -1;
    }
    int result = 0;
    do {
        ListPrinterContext context;
        context.include_path = include;
        if (ListDirectory(session, include.c_str(), ListPrinter, &context, nullptr) != 0 ||
            !EndsWithWholeLine(context)) {
            LogMessageTo(stderr, "%slist failed\n", FailureHead().c_str());
            result = -1;
        }
    } while (stream != nullptr && ReadPathLine(include, stream));
    return IsWritten(RunSettings.list.get(), "list") ? result : -1;
}

// Termination

namespace {

constexpr int TerminatedStatus = 143; // 128 + SIGTERM, as a shell reports it

sigset_t TerminationSignals;

// Takes the one SIGTERM that counts; a second one stays pending.
void SignalThread() {
    int signal = 0;
    ::sigwait(&TerminationSignals, &signal);
    if (signal == SIGTERM)
        TerminationRequested |= 1;
    else
        LogMessageTo(stderr, "\nUnexpected signal %d\n", signal);
}

// Keeps SIGTERM for the signal thread. Requires: no other thread exists, so that each inherits the mask.
void StartSignalThread() {
    ::sigemptyset(&TerminationSignals);
    ::sigaddset(&TerminationSignals, SIGTERM);
    if (::pthread_sigmask(SIG_BLOCK, &TerminationSignals, nullptr) != 0) {
        LogMessageTo(stderr, "%sFailed to mask signals\n", FailureHead().c_str());
        std::exit(TerminatedStatus);
    }
    try {
        std::thread(SignalThread).detach();
    } catch (const std::system_error&) {
        LogMessageTo(stderr, "%sFailed to launch signal thread\n", FailureHead().c_str());
        std::exit(TerminatedStatus);
    }
}

// The run

// A descriptor 0, 1 or 2 that the caller left closed would be the next thing opened: log lines would go into
// the archive. It is taken by one that can neither be read nor written.
void ReserveStandardDescriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor)
        if (::fcntl(descriptor, F_GETFD) < 0 && ::open("/", O_PATH | O_DIRECTORY) < 0)
            std::exit(255);
}

void StartUp(const char* program) {
    ReserveStandardDescriptors();
    RegisterThread(-1);
    const char* const slash = std::strrchr(program, '/');
    ProgramName = slash != nullptr ? slash + 1 : program;
    std::signal(SIGXFSZ, SIG_IGN); // a file size limit is a failed write, to be reported like a full disk
    StartSignalThread();
    StderrIsTerminal = ::isatty(STDERR_FILENO);
    ::setlinebuf(stdout);
    ::setlinebuf(stderr);
    PageSize = ::getpagesize();
}

// Runs the one mode that the settings ask for.
int RunMode(FtpSession* session) {
    if (RunSettings.test_count > 0)
        return 0;
    if (RunSettings.list)
        return ListMode(session);
    if (RunSettings.backup_path)
        return BackupDriver(session);
    if (RunSettings.restore_path)
        return RestoreArchive(session);
    LogMessageTo(stderr, "%s: don't know what to do\n", ProgramName);
    Usage();
    return -1;
}

int RunSession(double begun) {
    std::unique_ptr<FtpSession> session = NewSession(RunSettings.server->c_str(), "ftp");
    if (session == nullptr)
        return -1;
    if (Login(session.get(), RunSettings.user->c_str(), RunSettings.password->c_str()) != 0) {
        LogMessageTo(stderr, "%slogin failed\n", FailureHead().c_str());
        Quit(std::move(session));
        return -1;
    }
    const int result = RunMode(session.get());
    Quit(std::move(session));
    LogMessage("** Total Run Time: %.3f seconds\n", SecondsNow() - begun);
    return result;
}

} // namespace

int RunVondral(int argc, char** argv) {
    const double begun = SecondsNow();
    StartUp(argc > 0 ? argv[0] : ProgramName);
    if (ParseCommandLine(argc, argv) != 0)
        return -1;
    try {
        const int result = RunSession(begun);
        IsWritten(stdout, "standard output"); // before a stream on the same descriptor closes it
        return result;
    } catch (const std::bad_alloc&) {
        LogMessageTo(stderr, "%s: out of memory\n", ProgramName);
        return -1;
    }
}
