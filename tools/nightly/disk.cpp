#include "disk.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "failure.h"
#include "resources.h"

namespace nightly {

namespace {

namespace fs = std::filesystem;

void Require(bool succeeded, const std::string& what) {
    if (!succeeded)
        throw Failure(ctar::WithReason(what));
}

void Sync(const std::string& path) {
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    Require(file.IsOpen() && ::fsync(file.Get()) == 0, path + ": flush to disk");
}

std::string DirectoryOf(const std::string& path) {
    const std::string directory = fs::path(path).parent_path();
    return directory.empty() ? "." : directory;
}

} // namespace

void Disk::Before(const char* step, const std::string& path) const {
    if (before)
        before(step, path);
}

void Disk::MakeDirectory(const std::string& path) {
    Before("mkdir", path);
    Require(::mkdir(path.c_str(), 0700) == 0, path);
    Sync(DirectoryOf(path));
}

void Disk::WriteFile(const std::string& path, const std::string& text) {
    Before("write", path);
    const std::string temporary = path + ".new";
    {
        Descriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        const bool written = file.IsOpen() && WriteAll(file.Get(), text.data(), text.size()) &&
                             ::fsync(file.Get()) == 0 && file.Close() == 0;
        if (!written) {
            const int error = errno;
            ::unlink(temporary.c_str());
            errno = error;
        }
        Require(written, path);
    }
    Before("publish", path);
    Require(::rename(temporary.c_str(), path.c_str()) == 0, path);
    Sync(DirectoryOf(path));
}

void Disk::Rename(const std::string& from, const std::string& to) {
    Before("rename", from);
    Require(::rename(from.c_str(), to.c_str()) == 0, from);
    Sync(DirectoryOf(to));
}

void Disk::Remove(const std::string& path) {
    Before("remove", path);
    Require(::unlink(path.c_str()) == 0 || errno == ENOENT, path);
}

void Disk::RemoveDirectory(const std::string& path) {
    Before("rmdir", path);
    Require(::rmdir(path.c_str()) == 0, path);
}

void Disk::SyncDirectory(const std::string& path) {
    Before("sync", path);
    for (const fs::directory_entry& entry : fs::directory_iterator(path))
        if (entry.is_regular_file())
            Sync(entry.path());
    Sync(path);
}

bool Exists(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0;
}

std::string ReadSmallFile(const std::string& path) {
    constexpr std::size_t most = 16 << 20;
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    Require(file.IsOpen(), path);
    std::string text, piece(65536, '\0');
    ssize_t count;
    while ((count = ReadSome(file.Get(), piece.data(), piece.size())) > 0 && text.size() <= most)
        text.append(piece, 0, static_cast<std::size_t>(count));
    Require(count >= 0, path);
    if (text.size() > most)
        throw Failure(path + ": too large");
    return text;
}

} // namespace nightly
