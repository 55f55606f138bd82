#include "output.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <linux/limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include "input.h"
#include "messages.h"
#include "resources.h"

namespace {

// The temporary file's name, for the signal handler too; empty while there is none.
std::array<char, PATH_MAX> Temporary{};

extern "C" void EndBySignal(int signal) {
    ::unlink(Temporary.data());
    std::signal(signal, SIG_DFL);
    ::raise(signal);
}

std::string DirectoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == path.npos ? "." : path.substr(0, slash + 1);
}

void RefuseExisting(const std::string& path, bool force) {
    struct stat status;
    if (::lstat(path.c_str(), &status) != 0)
        return;
    if (!force)
        throw Failure(Escape(path) + ": exists already; --force replaces it");
    if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
        throw Failure(Escape(path) + ": is not a regular file");
    if (IsBeingWritten(status))
        throw Failure(Escape(path) + ": a backup is being written into it");
}

// Where a file system cannot rename without replacing, a link does it: it fails when the name is in use.
bool GiveName(const char* path, bool force) {
    if (::renameat2(AT_FDCWD, Temporary.data(), AT_FDCWD, path, force ? 0 : RENAME_NOREPLACE) == 0)
        return true;
    if (force || errno != EINVAL || ::link(Temporary.data(), path) != 0)
        return false;
    ::unlink(Temporary.data());
    return true;
}

} // namespace

void WriteAll(int descriptor, std::span<const char> bytes, const std::string& name) {
    while (!bytes.empty()) {
        const ssize_t written = WriteSome(descriptor, bytes.data(), bytes.size());
        if (written < 0)
            throw Failure(WithReason(Escape(name) + ": write"));
        bytes = bytes.subspan(static_cast<std::size_t>(written));
    }
}

OutputFile::OutputFile(const std::string& path, bool force) : path_(path), force_(force) {
    RefuseExisting(path, force);
    const std::string pattern = DirectoryOf(path) + "/.ctar-XXXXXX";
    if (pattern.size() >= Temporary.size())
        throw Failure(Escape(path) + ": path too long");
    sigset_t ends{}, before{};
    sigemptyset(&ends);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGALRM, SIGXCPU}) {
        sigaddset(&ends, signal);
        if (std::signal(signal, EndBySignal) == SIG_IGN)
            std::signal(signal, SIG_IGN);
    }
    // Between its making and the handler's knowing its name no signal may come.
    ::sigprocmask(SIG_BLOCK, &ends, &before);
    std::string made = pattern;
    file_.Reset(::mkostemp(made.data(), O_CLOEXEC));
    const int error = errno;
    if (file_.IsOpen())
        made.copy(Temporary.data(), made.size());
    ::sigprocmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    if (!file_.IsOpen())
        throw Failure(WithReason(Escape(path)));
}

OutputFile::~OutputFile() {
    if (Temporary[0] != '\0')
        ::unlink(Temporary.data());
    Temporary.fill('\0');
}

void OutputFile::Write(std::span<const char> bytes) {
    WriteAll(file_.Get(), bytes, path_);
}

void OutputFile::Commit() {
    if (::fsync(file_.Get()) != 0 || file_.Close() != 0)
        throw Failure(WithReason(Escape(path_)));
    RefuseExisting(path_, force_);
    if (!GiveName(path_.c_str(), force_))
        throw Failure(WithReason(Escape(path_)));
    Temporary.fill('\0');
    const Descriptor directory(::open(DirectoryOf(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.IsOpen() || ::fsync(directory.Get()) != 0)
        throw Failure(WithReason(Escape(DirectoryOf(path_))));
}
