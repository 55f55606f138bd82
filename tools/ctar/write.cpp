#include "write.h"

#include <cerrno>

#include <poll.h>
#include <unistd.h>

ssize_t WriteSome(int descriptor, const void* bytes, std::size_t count) {
    for (;;) {
        const ssize_t written = ::write(descriptor, bytes, count);
        pollfd output{descriptor, POLLOUT, 0};
        if (written >= 0 || (errno != EINTR && (errno != EAGAIN || ::poll(&output, 1, -1) < 0)))
            return written;
    }
}
