#include "output_file.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include "output.h"
#include "resources.h"

namespace report {

namespace {

namespace fs = std::filesystem;

bool WriteText(Output output, std::string_view text) {
    Write(output, text);
    errno = output.error;
    return output.error == 0;
}

bool IsStandardOutput(const struct stat& file) {
    struct stat status {};
    return ::fstat(STDOUT_FILENO, &status) == 0 && IsSameFile(file, status);
}

// The end of a chain of symbolic links, whether a file exists there or not.
fs::path Resolve(fs::path path) {
    constexpr int most = 40; // as many as the system follows
    std::error_code error;
    for (int i = 0; i < most && fs::is_symlink(path, error); ++i)
        path = path.parent_path() / fs::read_symlink(path, error);
    return path;
}

// The mode of any other new file; mkostemp sets 0600.
mode_t UsualMode() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

bool Publish(Descriptor file, const std::string& temporary, const std::string& path, const std::string& text) {
    return WriteAll(file.Get(), text.data(), text.size()) && ::fchmod(file.Get(), UsualMode()) == 0 &&
           ::fsync(file.Get()) == 0 && file.Close() == 0 && std::rename(temporary.c_str(), path.c_str()) == 0;
}

} // namespace

bool IsSameFile(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool ReplaceFile(const std::string& path, const std::string& text) {
    struct stat status {};
    const bool exists = ::stat(path.c_str(), &status) == 0;
    if (!exists && errno != ENOENT)
        return false;
    if (exists && IsStandardOutput(status))
        return WriteText({STDOUT_FILENO}, text);
    if (exists && !S_ISREG(status.st_mode)) {
        Descriptor device(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        return device.IsOpen() && WriteText({device.Get(), PipePatience}, text) && device.Close() == 0;
    }
    const std::string target = Resolve(path);
    std::string temporary = target + ".XXXXXX";
    Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.IsOpen())
        return false;
    if (Publish(std::move(file), temporary, target, text))
        return true;
    const int error = errno;
    ::unlink(temporary.c_str());
    errno = error;
    return false;
}

} // namespace report
