// Stand-ins for libc calls, put in at link time (--wrap) and driven by the environment, so that they serve the program
// under test as well as tests that link the modules.
//
//   VONDRAL_TEST_MINUTE  the milliseconds that a poll() of a minute lasts
//   VONDRAL_TEST_PORT    the port of every service
//   VONDRAL_TEST_DISK    "CALL:N:WHAT", what happens instead of the Nth call (from 1) of write, ftruncate, lseek or
//                        fdatasync that the program makes itself, which is always one for the archive, or instead of
//                        the Nth output ("output") to the stream that it opens for writing, which is the catalog:
//                        "kill" ends the program; a number fails the call with that errno; "+number" fails that call
//                        and all behind it; "/number" lets a write take that many bytes

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

extern "C" {
int __real_poll(pollfd* set, nfds_t count, int milliseconds);
servent* __real_getservbyname(const char* name, const char* protocol);
ssize_t __real_write(int descriptor, const void* bytes, size_t count);
off_t __real_lseek64(int descriptor, off_t offset, int whence);
int __real_ftruncate64(int descriptor, off_t length);
int __real_fdatasync(int descriptor);
FILE* __real_fopen64(const char* path, const char* mode);
}

namespace {

// One call that may be disturbed. `short_write` becomes what it is allowed to take when it is to be cut.
bool Fails(const char* call, size_t* short_write = nullptr) {
    static const char* const order = std::getenv("VONDRAL_TEST_DISK");
    static std::atomic<long> calls = 0;
    const size_t name = std::strlen(call);
    if (order == nullptr || std::strncmp(order, call, name) != 0 || order[name] != ':')
        return false;
    char* what;
    const long nth = std::strtol(order + name + 1, &what, 10);
    const long count = ++calls;
    ++what; // the colon
    const bool onwards = *what == '+';
    if (count < nth || (count > nth && !onwards))
        return false;
    if (*what == 'k')
        std::raise(SIGKILL);
    const bool cut = *what == '/';
    const long number = std::strtol(what + (onwards || cut ? 1 : 0), nullptr, 10);
    if (cut && short_write != nullptr)
        *short_write = std::min(*short_write, static_cast<size_t>(number));
    errno = static_cast<int>(number);
    return !cut;
}

// A stream over a descriptor; its outputs may be disturbed.
ssize_t Output(void* descriptor, const char* bytes, size_t count) {
    return Fails("output") ? 0 : __real_write(*static_cast<int*>(descriptor), bytes, count);
}

FILE* Disturbed(FILE* opened) {
    static int descriptor = -1; // the program opens one such stream
    descriptor = ::dup(::fileno(opened));
    std::fclose(opened);
    return ::fopencookie(&descriptor, "w", {nullptr, Output, nullptr, nullptr});
}

} // namespace

extern "C" {

int __wrap_poll(pollfd* set, nfds_t count, int milliseconds) {
    const char* const minute = std::getenv("VONDRAL_TEST_MINUTE");
    if (milliseconds == 60000 && minute != nullptr)
        milliseconds = static_cast<int>(std::strtol(minute, nullptr, 10));
    return __real_poll(set, count, milliseconds);
}

servent* __wrap_getservbyname(const char* name, const char* protocol) {
    servent* const entry = __real_getservbyname(name, protocol);
    const char* const port = std::getenv("VONDRAL_TEST_PORT");
    if (entry != nullptr && port != nullptr)
        entry->s_port = htons(static_cast<in_port_t>(std::strtoul(port, nullptr, 10)));
    return entry;
}

ssize_t __wrap_write(int descriptor, const void* bytes, size_t count) {
    return Fails("write", &count) ? -1 : __real_write(descriptor, bytes, count);
}

off_t __wrap_lseek64(int descriptor, off_t offset, int whence) {
    return Fails("lseek") ? -1 : __real_lseek64(descriptor, offset, whence);
}

int __wrap_ftruncate64(int descriptor, off_t length) {
    return Fails("ftruncate") ? -1 : __real_ftruncate64(descriptor, length);
}

FILE* __wrap_fopen64(const char* path, const char* mode) {
    FILE* const opened = __real_fopen64(path, mode);
    const bool disturb = std::getenv("VONDRAL_TEST_DISK") != nullptr && mode[0] == 'w' && opened != nullptr;
    return disturb ? Disturbed(opened) : opened;
}

int __wrap_fdatasync(int descriptor) {
    return Fails("fdatasync") ? -1 : __real_fdatasync(descriptor);
}
}
