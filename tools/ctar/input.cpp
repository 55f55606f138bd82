#include "input.h"

#include <algorithm>
#include <cerrno>
#include <fstream>

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "messages.h"
#include "text.h"

namespace ctar {

namespace {

constexpr std::size_t BufferSize = 1 << 20;      // large enough to read a disk at its full rate
constexpr std::size_t SmallestWindow = 16 << 10; // small enough that walking headers alone stays cheap

} // namespace

// A backup holds an exclusive lock on its archive. Looking it up in the list of locks avoids taking a lock, which could
// make a backup fail that starts at this moment.
bool IsBeingWritten(const struct stat& file) {
    const std::string id = FormatText(" %02x:%02x:%llu ", major(file.st_dev), minor(file.st_dev),
                                      static_cast<unsigned long long>(file.st_ino));
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);)
        if (line.find("FLOCK") != line.npos && line.find("WRITE") != line.npos && line.find(id) != line.npos)
            return true;
    return false;
}

Input::Input(const std::string& path, Access access)
    : name_(Escape(path)), buffer_(BufferSize), window_(SmallestWindow) {
    const bool is_standard = path == "-";
    if (is_standard)
        name_ = "standard input";
    // Opening a named pipe without a writer must not block a command that cannot use it.
    const int nonblock = access == Access::Random ? O_NONBLOCK : 0;
    descriptor_.Reset(is_standard ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                                  : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | nonblock));
    if (!descriptor_.IsOpen() || ::fstat(descriptor_.Get(), &status_) != 0)
        throw Failure(WithReason(name_));
    const bool is_file = S_ISREG(status_.st_mode) || S_ISBLK(status_.st_mode);
    if (is_file && !is_standard)
        size_ = ::lseek(descriptor_.Get(), 0, SEEK_END);
    if (access == Access::Random && !IsSeekable())
        throw Failure(name_ + ": this command needs the name of a regular file or block device");
    is_backup_running_ = IsBeingWritten(status_);
    if (is_backup_running_)
        PrintError(name_ + ": a backup is writing to this file");
}

std::size_t Input::ReadAt(std::int64_t offset, char* bytes, std::size_t most) {
    ssize_t count;
    if (!IsSeekable())
        count = ReadSome(descriptor_.Get(), bytes, most);
    else
        do
            count = ::pread(descriptor_.Get(), bytes, most, offset);
        while (count < 0 && errno == EINTR);
    if (count < 0)
        throw Failure(WithReason(name_ + ": read at offset " + FormatOffset(offset)));
    return static_cast<std::size_t>(count);
}

std::span<const char> Input::Read(std::int64_t most) {
    if (used_ == filled_) {
        filled_ = ReadAt(offset_, buffer_.data(), window_);
        used_ = 0;
        window_ = std::min(window_ * 2, BufferSize);
    }
    const std::size_t count = std::min(filled_ - used_, static_cast<std::size_t>(std::max<std::int64_t>(most, 0)));
    const std::span<const char> bytes(buffer_.data() + used_, count);
    used_ += count;
    offset_ += static_cast<std::int64_t>(count);
    return bytes;
}

std::size_t Input::ReadBlock(CtarBlock& block) {
    std::size_t length = 0;
    while (length < block.size()) {
        const std::span<const char> bytes = Read(static_cast<std::int64_t>(block.size() - length));
        if (bytes.empty())
            break;
        std::copy(bytes.begin(), bytes.end(), block.begin() + length);
        length += bytes.size();
    }
    return length;
}

std::int64_t Input::Skip(std::int64_t count) {
    const std::int64_t begin = offset_;
    if (IsSeekable() && count > static_cast<std::int64_t>(filled_ - used_)) {
        Seek(offset_ + std::min(count, std::max<std::int64_t>(size_ - offset_, 0)));
        return offset_ - begin;
    }
    while (offset_ - begin < count && !Read(count - (offset_ - begin)).empty()) {
    }
    return offset_ - begin;
}

void Input::Seek(std::int64_t offset) {
    offset_ = offset;
    filled_ = used_ = 0;
    window_ = SmallestWindow;
}

std::size_t Input::ReadBlockAt(std::int64_t offset, CtarBlock& block) {
    std::size_t length = 0;
    while (length < block.size()) {
        const std::size_t count = ReadAt(offset, block.data() + length, block.size() - length);
        if (count == 0)
            break;
        length += count;
        offset += static_cast<std::int64_t>(count);
    }
    return length;
}

bool Input::IsSameFile(const std::string& path) const {
    struct stat other;
    return ::stat(path.c_str(), &other) == 0 && other.st_dev == status_.st_dev && other.st_ino == status_.st_ino;
}

} // namespace ctar
