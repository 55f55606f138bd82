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

namespace ctar {

namespace {

// The temporary file's name, which the signal handler reads too; empty while there is no such file.
std::array<char, PATH_MAX> Temporary{};

extern "C" void RemoveAndRaise(int signal) {
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
        throw Failure(Escape(path) + ": already exists; use --force to replace it");
    if (!S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
        throw Failure(Escape(path) + ": not a regular file");
    if (IsBeingWritten(status))
        throw Failure(Escape(path) + ": a backup is writing to this file");
}

// Some file systems cannot rename without replacing. There a link does it, since it fails when the name is in use.
bool RenameTo(const char* path, bool force) {
    if (::renameat2(AT_FDCWD, Temporary.data(), AT_FDCWD, path, force ? 0 : RENAME_NOREPLACE) == 0)
        return true;
    if (force || errno != EINVAL || ::link(Temporary.data(), path) != 0)
        return false;
    ::unlink(Temporary.data());
    return true;
}

} // namespace

void WriteOrThrow(int descriptor, std::span<const char> bytes, const std::string& name) {
    if (!WriteAll(descriptor, bytes.data(), bytes.size()))
        throw Failure(WithReason(Escape(name) + ": write"));
}

OutputFile::OutputFile(const std::string& path, bool force) : path_(path), force_(force) {
    RefuseExisting(path, force);
    const std::string pattern = DirectoryOf(path) + "/.ctar-XXXXXX";
    if (pattern.size() >= Temporary.size())
        throw Failure(Escape(path) + ": path too long");
    sigset_t handled{}, previous{};
    sigemptyset(&handled);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGALRM, SIGXCPU}) {
        sigaddset(&handled, signal);
        if (std::signal(signal, RemoveAndRaise) == SIG_IGN)
            std::signal(signal, SIG_IGN);
    }
    // No signal may arrive between creating the file and telling the handler its name.
    ::sigprocmask(SIG_BLOCK, &handled, &previous);
    std::string name = pattern;
    file_.Reset(::mkostemp(name.data(), O_CLOEXEC));
    const int error = errno;
    if (file_.IsOpen())
        name.copy(Temporary.data(), name.size());
    ::sigprocmask(SIG_SETMASK, &previous, nullptr);
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
    WriteOrThrow(file_.Get(), bytes, path_);
}

Descriptor OutputFile::Duplicate() const {
    Descriptor file(::fcntl(file_.Get(), F_DUPFD_CLOEXEC, 0));
    if (!file.IsOpen())
        throw Failure(WithReason(Escape(path_)));
    return file;
}

void OutputFile::Commit() {
    if (::fsync(file_.Get()) != 0 || file_.Close() != 0)
        throw Failure(WithReason(Escape(path_)));
    RefuseExisting(path_, force_);
    if (!RenameTo(path_.c_str(), force_))
        throw Failure(WithReason(Escape(path_)));
    Temporary.fill('\0');
    const Descriptor directory(::open(DirectoryOf(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.IsOpen() || ::fsync(directory.Get()) != 0)
        throw Failure(WithReason(Escape(DirectoryOf(path_))));
}

} // namespace ctar
