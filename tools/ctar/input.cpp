#include "input.h"

#include <algorithm>
#include <cerrno>
#include <fstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "messages.h"

namespace {

constexpr std::size_t BufferSize = 1 << 20;      // large enough that a disk reads at its full rate
constexpr std::size_t SmallestWindow = 16 << 10; // small enough that walking headers alone stays cheap

} // namespace

// The writer holds an exclusive lock for the whole of a run. Only the list of locks tells without taking one, which
// might refuse a backup that begins at this moment.
bool IsBeingWritten(const struct stat& file) {
    const std::string place = FormatText(" %02x:%02x:%llu ", major(file.st_dev), minor(file.st_dev),
                                         static_cast<unsigned long long>(file.st_ino));
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);)
        if (line.find("FLOCK") != line.npos && line.find("WRITE") != line.npos && line.find(place) != line.npos)
            return true;
    return false;
}

Input::Input(const std::string& path, Access access)
    : name_(Escape(path)), buffer_(BufferSize), window_(SmallestWindow) {
    const bool standard = path == "-";
    if (standard)
        name_ = "standard input";
    // A named pipe without a writer must not hold up a command that cannot use it.
    const int waiting = access == Access::Random ? O_NONBLOCK : 0;
    descriptor_.Reset(standard ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                               : ::open(path.c_str(), O_RDONLY | O_CLOEXEC | waiting));
    if (!descriptor_.IsOpen() || ::fstat(descriptor_.Get(), &status_) != 0)
        throw Failure(WithReason(name_));
    const bool is_file = S_ISREG(status_.st_mode) || S_ISBLK(status_.st_mode);
    if (is_file && !standard)
        size_ = ::lseek(descriptor_.Get(), 0, SEEK_END);
    if (access == Access::Random && !IsSeekable())
        throw Failure(name_ + (standard ? ": this command goes back and forth: it needs the name of a file"
                                        : ": is not a regular file, and this command must go back and forth in it"));
    under_way_ = IsBeingWritten(status_);
    if (under_way_)
        Complain(name_ + ": a backup is being written into it");
}

std::size_t Input::ReadSome(char* to, std::size_t most, std::int64_t offset) {
    for (;;) {
        const ssize_t count =
            IsSeekable() ? ::pread(descriptor_.Get(), to, most, offset) : ::read(descriptor_.Get(), to, most);
        if (count >= 0)
            return static_cast<std::size_t>(count);
        pollfd input{descriptor_.Get(), POLLIN, 0}; // a pipe that its other user has made non-blocking
        if (errno != EINTR && (errno != EAGAIN || ::poll(&input, 1, -1) < 0))
            throw Failure(WithReason(name_ + ": read at offset " + OffsetText(offset)));
    }
}

std::span<const char> Input::Read(std::int64_t most) {
    if (used_ == held_) {
        held_ = ReadSome(buffer_.data(), window_, offset_);
        used_ = 0;
        window_ = std::min(window_ * 2, BufferSize);
    }
    const std::size_t count = std::min(held_ - used_, static_cast<std::size_t>(std::max<std::int64_t>(most, 0)));
    const std::span<const char> bytes(buffer_.data() + used_, count);
    used_ += count;
    offset_ += static_cast<std::int64_t>(count);
    return bytes;
}

std::size_t Input::ReadBlock(CtarBlock& block) {
    std::size_t held = 0;
    while (held < block.size()) {
        const std::span<const char> bytes = Read(static_cast<std::int64_t>(block.size() - held));
        if (bytes.empty())
            break;
        std::copy(bytes.begin(), bytes.end(), block.begin() + held);
        held += bytes.size();
    }
    return held;
}

std::int64_t Input::Skip(std::int64_t count) {
    const std::int64_t begun = offset_;
    if (IsSeekable() && count > static_cast<std::int64_t>(held_ - used_)) {
        Seek(offset_ + std::min(count, std::max<std::int64_t>(size_ - offset_, 0)));
        return offset_ - begun;
    }
    while (offset_ - begun < count && !Read(count - (offset_ - begun)).empty()) {
    }
    return offset_ - begun;
}

void Input::Seek(std::int64_t offset) {
    offset_ = offset;
    held_ = used_ = 0;
    window_ = SmallestWindow;
}

std::size_t Input::ReadBlockAt(std::int64_t offset, CtarBlock& block) {
    std::size_t held = 0;
    while (held < block.size()) {
        const std::size_t count = ReadSome(block.data() + held, block.size() - held, offset);
        if (count == 0)
            break;
        held += count;
        offset += static_cast<std::int64_t>(count);
    }
    return held;
}

bool Input::IsSameFile(const std::string& path) const {
    struct stat other;
    return ::stat(path.c_str(), &other) == 0 && other.st_dev == status_.st_dev && other.st_ino == status_.st_ino;
}
