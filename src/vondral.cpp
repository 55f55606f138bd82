#include "vondral.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include "backup.h"
#include "options.h"
#include "path_file.h"
#include "restore.h"

// List mode

namespace {

void PrintListed(const ListedObject& object, const Settings& settings) {
    if (!object.InLibraries())
        std::fprintf(settings.list.get(), "%s%s\n", object.path.c_str(), object.is_directory ? "/" : "");
    else if (object.IsLibrary())
        std::fprintf(settings.list.get(), "%s\n", object.path.c_str());
    else if (settings.Verbosity() >= 1)
        LogError("ignoring non-library %s under /QSYS.LIB\n", MaskControls(object.name).c_str());
}

// A line that the server began and did not end would silently be missing from the list.
bool EndsWithWholeLine(const ListLines& lines) {
    if (lines.between_lines || lines.pending.empty())
        return true;
    LogFailure("unfinished line: %s\n", MaskControls(lines.pending).c_str());
    return false;
}

} // namespace

int ListPrinter(void* argument, char* data, int* count) {
    auto* const context = static_cast<ListPrinterContext*>(argument);
    if (context == nullptr) {
        LogFailure("bad argument\n");
        return -1;
    }
    std::string_view chunk(data, static_cast<std::size_t>(*count));
    if (context->settings.Verbosity() >= 1)
        std::fwrite(chunk.data(), 1, chunk.size(), stdout);
    for (;;) {
        const ListStep step = ConsumeListLine(context->lines, chunk);
        if (step == ListStep::MoreData)
            return 0;
        if (step == ListStep::TooLong) {
            LogFailure("buffer overflow\n");
            return -1;
        }
        const std::optional<ListedObject> object = ParseListLine(context->include_path, context->lines.pending);
        if (!object) {
            LogFailure("path too long\n");
            return -1;
        }
        PrintListed(*object, context->settings);
        context->lines.pending.clear();
    }
}

int ListMode(FtpSession* session, const Settings& settings) {
    std::FILE* const stream = settings.include.get();
    std::string include = "/";
    if (stream != nullptr && !ReadPathLine(include, stream)) {
        LogError("empty include list\n");
        return -1;
    }
    int result = 0;
    do {
        ListPrinterContext context{settings, include};
        if (ListDirectory(session, include.c_str(), ListPrinter, &context, nullptr) != 0 ||
            !EndsWithWholeLine(context.lines)) {
            LogFailure("list failed\n");
            result = -1;
        }
    } while (stream != nullptr && ReadPathLine(include, stream));
    return IsWritten(settings.list.get(), "list") ? result : -1;
}

// Termination

namespace {

sigset_t TerminationSignals;

// Waits for the one SIGTERM that counts; a second one stays pending.
void SignalThread() {
    int signal = 0;
    ::sigwait(&TerminationSignals, &signal);
    if (signal == SIGTERM)
        TerminationRequested |= 1;
    else
        LogMessageTo(stderr, "\nUnexpected signal %d\n", signal);
}

// Keeps SIGTERM for the signal thread. Returns false after logging what failed. Requires: no other thread exists, so
// that each inherits the mask.
bool StartSignalThread() {
    ::sigemptyset(&TerminationSignals);
    ::sigaddset(&TerminationSignals, SIGTERM);
    if (::pthread_sigmask(SIG_BLOCK, &TerminationSignals, nullptr) != 0) {
        LogFailure("Failed to mask signals\n");
        return false;
    }
    try {
        std::thread(SignalThread).detach();
    } catch (const std::system_error&) {
        LogFailure("Failed to launch signal thread\n");
        return false;
    }
    return true;
}

// The run

// A descriptor 0, 1 or 2 that the caller left closed would be the next thing opened: log lines would end up in the
// archive. Reserves it with one that can neither be read nor written.
bool ReserveStandardDescriptors() {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor)
        if (::fcntl(descriptor, F_GETFD) < 0 && ::open("/", O_PATH | O_DIRECTORY) < 0)
            return false;
    return true;
}

// Returns 0, or the exit status of a run that cannot start.
int StartUp(const char* program) {
    if (!ReserveStandardDescriptors())
        return -1;
    RegisterThread();
    const char* const slash = std::strrchr(program, '/');
    ProgramName = slash != nullptr ? slash + 1 : program;
    std::signal(SIGXFSZ, SIG_IGN); // a file size limit is a failed write, to be reported like a full disk
    if (!StartSignalThread())
        return TerminatedStatus;
    ::setlinebuf(stdout);
    ::setlinebuf(stderr);
    return 0;
}

// Runs the one mode that the settings ask for.
int RunMode(FtpSession* session, const Settings& settings) {
    if (settings.test_count > 0)
        return 0;
    if (settings.list)
        return ListMode(session, settings);
    if (settings.backup_path)
        return BackupDriver(session, settings);
    if (settings.restore_path)
        return RestoreArchive(session, settings);
    LogError("don't know what to do\n");
    Usage();
    return -1;
}

int RunSession(double begun, const Settings& settings) {
    std::unique_ptr<FtpSession> session = NewSession(settings.server->c_str(), "ftp", settings.transport);
    if (session == nullptr)
        return -1;
    if (Login(session.get(), settings.user->c_str(), settings.password->c_str()) != 0) {
        LogFailure("login failed\n");
        Quit(std::move(session));
        return -1;
    }
    const int result = RunMode(session.get(), settings);
    if (result == TerminatedStatus) // asked to end: without QUIT and without the closing line
        return result;
    Quit(std::move(session));
    LogMessage("** Total Run Time: %.3f seconds\n", SecondsNow() - begun);
    return result;
}

} // namespace

int RunVondral(int argc, char** argv) {
    const double begun = SecondsNow();
    const bool has_output = ::fcntl(STDOUT_FILENO, F_GETFD) >= 0;
    Settings settings;
    if (const int status = StartUp(argc > 0 ? argv[0] : ProgramName); status != 0)
        return status;
    if (ParseCommandLine(argc, argv, settings) != 0)
        return -1;
    try {
        const int result = RunSession(begun, settings);
        if (has_output)
            IsWritten(stdout, "standard output"); // before a stream on the same descriptor closes it
        return result;
    } catch (const std::bad_alloc&) {
        LogError("out of memory\n");
        return -1;
    }
}
