#include "output_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support.h"

namespace {

bool WriteAll(int descriptor, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = ::write(descriptor, text.data(), text.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

// What a new file gets; mkostemp leaves it to its owner alone.
mode_t UsualMode() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

bool Publish(Descriptor file, const std::string& temporary, const std::string& path, const std::string& text) {
    return WriteAll(file.Get(), text) && ::fchmod(file.Get(), UsualMode()) == 0 && ::fsync(file.Get()) == 0 &&
           file.Close() == 0 && std::rename(temporary.c_str(), path.c_str()) == 0;
}

} // namespace

bool ReplaceFile(const std::string& path, const std::string& text) {
    struct stat status;
    if (::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
        Descriptor device(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
        return device.IsOpen() && WriteAll(device.Get(), text) && device.Close() == 0;
    }
    std::string temporary = path + ".XXXXXX";
    Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!file.IsOpen())
        return false;
    if (Publish(std::move(file), temporary, path, text))
        return true;
    const int error = errno;
    ::unlink(temporary.c_str());
    errno = error;
    return false;
}
