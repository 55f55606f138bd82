#include "pump.h"

#include <cerrno>
#include <vector>

#include <poll.h>
#include <unistd.h>

#include "line_splitter.h"

int ReadToEnd(int input, int tick_ms, const std::function<void(std::string_view)>& take,
              const std::function<void()>& tick) {
    std::vector<char> buffer(LogChunk);
    for (;;) {
        pollfd ready{input, POLLIN, 0};
        const int events = ::poll(&ready, 1, tick_ms);
        if (events > 0) {
            const ssize_t count = ::read(input, buffer.data(), buffer.size());
            if (count == 0)
                return 0;
            if (count > 0)
                take({buffer.data(), static_cast<std::size_t>(count)});
            else if (errno != EINTR && errno != EAGAIN)
                return errno;
        } else if (events < 0 && errno != EINTR) {
            return errno;
        }
        tick();
    }
}
