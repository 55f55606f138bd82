#include "log_reader.h"

#include <cerrno>
#include <vector>

#include <poll.h>

#include "line_splitter.h"
#include "resources.h"

namespace report {

int ReadToEnd(int input, int tick_ms, const std::function<void(std::string_view)>& process,
              const std::function<void()>& tick) {
    constexpr std::size_t chunk = 65536;
    std::vector<char> buffer(chunk);
    for (;;) {
        pollfd ready{input, POLLIN, 0};
        if (::poll(&ready, 1, tick_ms) != 0) { // ReadSome copes with a poll that failed
            const ssize_t count = ReadSome(input, buffer.data(), buffer.size());
            if (count <= 0)
                return count == 0 ? 0 : errno;
            process({buffer.data(), static_cast<std::size_t>(count)});
        }
        tick();
    }
}

int ReadRun(int input, LoggedRun& run) {
    LineSplitter splitter;
    const auto process = [&run](std::string_view line) { ProcessLogLine(run, line); };
    const int error = ReadToEnd(
        input, -1, [&](std::string_view piece) { SplitLines(splitter, piece, process); }, [] {});
    FlushLine(splitter, process);
    FinishRun(run);
    return error;
}

} // namespace report
