#include "resources.h"

#include <cerrno>
#include <csignal>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <unistd.h>

int Descriptor::Close() {
    return ::close(std::exchange(value_, -1));
}

void Descriptor::Reset(int value) {
    if (value_ >= 0) {
        const int error = errno;
        ::close(value_);
        errno = error;
    }
    value_ = value;
}

bool Mapping::Map(std::size_t size) {
    void* pages = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED)
        return false;
    Mapping fresh;
    fresh.data_ = static_cast<char*>(pages);
    fresh.size_ = size;
    *this = std::move(fresh);
    return true;
}

Mapping::~Mapping() {
    if (data_ != nullptr)
        ::munmap(data_, size_);
}

bool ReserveStandardDescriptors(int flags) {
    for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor)
        if (::fcntl(descriptor, F_GETFD) < 0 && ::open("/dev/null", flags) < 0)
            return false;
    return true;
}

namespace {

// Whether the call that failed with errno is worth another try; waits until it is.
bool MayTryAgain(int descriptor, short events) {
    pollfd entry{descriptor, events, 0};
    return errno == EINTR || (errno == EAGAIN && (::poll(&entry, 1, -1) >= 0 || errno == EINTR));
}

} // namespace

ssize_t ReadSome(int descriptor, void* bytes, std::size_t count) {
    for (;;) {
        const ssize_t result = ::read(descriptor, bytes, count);
        if (result >= 0 || !MayTryAgain(descriptor, POLLIN))
            return result;
    }
}

ssize_t WriteSome(int descriptor, const void* bytes, std::size_t count) {
    for (;;) {
        const ssize_t result = ::write(descriptor, bytes, count);
        if (result >= 0 || !MayTryAgain(descriptor, POLLOUT))
            return result;
    }
}

// sendfile() has no flag like MSG_NOSIGNAL.
ssize_t SendFile(int socket, int file, std::int64_t offset, std::size_t count) {
    sigset_t pipe{}, before{};
    ::sigemptyset(&pipe);
    ::sigaddset(&pipe, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipe, &before);
    off_t from = offset;
    const ssize_t sent = ::sendfile(socket, file, &from, count);
    const int error = errno;
    const timespec at_once{};
    // The socket can break after a part has been sent, and the signal comes then, too.
    if (sent != static_cast<ssize_t>(count) && ::sigismember(&before, SIGPIPE) == 0)
        ::sigtimedwait(&pipe, nullptr, &at_once);
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return sent;
}

bool WriteAll(int descriptor, const void* bytes, std::size_t count) {
    const char* rest = static_cast<const char*>(bytes);
    while (count > 0) {
        errno = 0;
        const ssize_t written = WriteSome(descriptor, rest, count);
        if (written <= 0)
            return false;
        rest += written;
        count -= static_cast<std::size_t>(written);
    }
    return true;
}
