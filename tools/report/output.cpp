#include "output.h"

#include <cerrno>

#include <poll.h>
#include <unistd.h>

#include "resources.h"

namespace report {

namespace {

// Returns false, with errno set, when there is still no room after `patience`.
bool WaitForRoom(const Output& output) {
    pollfd room{output.descriptor, POLLOUT, 0};
    if (output.patience < 0 || ::poll(&room, 1, output.patience) != 0)
        return true;
    errno = ETIMEDOUT;
    return false;
}

} // namespace

void Write(Output& output, std::string_view bytes) {
    while (!bytes.empty() && output.descriptor >= 0) {
        const ssize_t count =
            WaitForRoom(output) ? WriteSome(output.descriptor, bytes.data(), bytes.size()) : ssize_t{-1};
        if (count < 0) {
            output.error = errno == EPIPE && output.descriptor == STDOUT_FILENO ? 0 : errno;
            output.descriptor = -1;
        } else if (count > 0) {
            output.mid_line = bytes[static_cast<std::size_t>(count) - 1] != '\n';
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }
}

} // namespace report
