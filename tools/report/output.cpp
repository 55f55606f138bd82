#include "output.h"

#include <cerrno>

#include <poll.h>
#include <unistd.h>

namespace {

// False, with errno set, when there is none for too long.
bool WaitForRoom(const Output& output) {
    pollfd room{output.descriptor, POLLOUT, 0};
    if (::poll(&room, 1, output.patience) != 0)
        return true;
    errno = ETIMEDOUT;
    return false;
}

} // namespace

void Write(Output& output, std::string_view bytes) {
    while (!bytes.empty() && output.descriptor >= 0) {
        const ssize_t count = ::write(output.descriptor, bytes.data(), bytes.size());
        if (count >= 0) {
            output.mid_line = count > 0 ? bytes[static_cast<std::size_t>(count) - 1] != '\n' : output.mid_line;
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (errno != EINTR && (errno != EAGAIN || !WaitForRoom(output))) {
            output.error = errno == EPIPE && output.descriptor == STDOUT_FILENO ? 0 : errno;
            output.descriptor = -1;
        }
    }
}
