// Stand-ins for libc calls, put in at link time (--wrap) and driven by the environment, so that they serve the program
// under test as well as tests that link the modules.
//
//   VONDRAL_TEST_MINUTE  the milliseconds that a poll() of a minute lasts
//   VONDRAL_TEST_PORT    the port of every service
//   VONDRAL_TEST_DISK    "CALL:N:WHAT", what happens instead of the Nth call (from 1) of write, ftruncate, lseek or
//                        fdatasync that the program makes itself, which is always one for the archive, or instead of
//                        the Nth line that it puts out to the file that it opens for writing ("catalog"), to the
//                        descriptor that it was given ("list") or to standard output ("log"):
//                        "kill" ends the program; a number fails the call with that errno; "+number" fails that call
//                        and all behind it; "/number" lets a write take that many bytes.
//                        "limit:N" lets no write go beyond the offset N of the archive
//                        "count" disturbs nothing, and leaves the number of all these calls in the mark
//                        "direct:" refuses direct reads, "plain:" has no page cache that could be asked, "refused:"
//                        is a file system without direct reads
//   VONDRAL_TEST_MARK    a file that is made when the disk is disturbed

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

extern "C" {
int __real_poll(pollfd* set, nfds_t count, int milliseconds);
int __real_clock_gettime(clockid_t clock, timespec* time);
servent* __real_getservbyname(const char* name, const char* protocol);
ssize_t __real_pread64(int descriptor, void* bytes, size_t count, off_t offset);
int __real_mincore(void* pages, size_t length, unsigned char* resident);
int __real_fcntl64(int descriptor, int operation, ...);
ssize_t __real_write(int descriptor, const void* bytes, size_t count);
off_t __real_lseek64(int descriptor, off_t offset, int whence);
int __real_ftruncate64(int descriptor, off_t length);
int __real_fdatasync(int descriptor);
FILE* __real_fopen64(const char* path, const char* mode);
FILE* __real_fdopen(int descriptor, const char* mode);
}

namespace {

// The order's text behind the call, when it is about this one.
const char* OrderFor(const char* call) {
    const char* const order = std::getenv("VONDRAL_TEST_DISK");
    const size_t name = std::strlen(call);
    return order != nullptr && std::strncmp(order, call, name) == 0 && order[name] == ':' ? order + name + 1 : nullptr;
}

// How long a minute of the program lasts, in milliseconds.
long Minute() {
    const char* const minute = std::getenv("VONDRAL_TEST_MINUTE");
    return minute != nullptr ? std::strtol(minute, nullptr, 10) : 60000;
}

void Mark() {
    const char* const mark = std::getenv("VONDRAL_TEST_MARK");
    if (mark != nullptr)
        ::close(::open(mark, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
}

// A kind of call that can be disturbed, and how many were made.
struct Call {
    const char* name;
    std::atomic<long> made = 0;
};
Call writes{"write"}, seeks{"lseek"}, cuts{"ftruncate"}, flushes{"fdatasync"};
Call catalog_lines{"catalog"}, list_lines{"list"}, log_lines{"log"};

bool Counts() {
    static const char* const order = std::getenv("VONDRAL_TEST_DISK");
    return order != nullptr && std::strcmp(order, "count") == 0;
}

[[gnu::destructor]] void LeaveCounts() {
    if (!Counts())
        return;
    FILE* const mark = __real_fopen64(std::getenv("VONDRAL_TEST_MARK"), "w");
    for (const Call* const call : {&writes, &seeks, &cuts, &flushes, &catalog_lines, &list_lines, &log_lines})
        std::fprintf(mark, "%s %ld\n", call->name, call->made.load());
    std::fclose(mark);
}

// Whether this call is to fail. `short_write` becomes what it is allowed to take when it is to be cut.
bool Fails(Call& call, size_t* short_write = nullptr) {
    const long count = ++call.made;
    const char* const order = OrderFor(call.name);
    if (order == nullptr)
        return false;
    char* what;
    const long nth = std::strtol(order, &what, 10);
    ++what; // the colon
    const bool onwards = *what == '+';
    if (count < nth || (count > nth && !onwards))
        return false;
    Mark();
    if (*what == 'k')
        std::raise(SIGKILL);
    const bool cut = *what == '/';
    const long number = std::strtol(what + (onwards || cut ? 1 : 0), nullptr, 10);
    if (cut && short_write != nullptr)
        *short_write = std::min(*short_write, static_cast<size_t>(number));
    errno = static_cast<int>(number);
    return !cut;
}

// What the disk limit leaves of a write. False when it leaves nothing.
bool HasRoom(int descriptor, size_t& count) {
    const char* const limit = OrderFor("limit");
    if (limit == nullptr)
        return true;
    const off_t room = std::strtoll(limit, nullptr, 10) - __real_lseek64(descriptor, 0, SEEK_CUR);
    if (room < static_cast<off_t>(count))
        Mark();
    errno = EFBIG;
    count = std::min(count, static_cast<size_t>(std::max<off_t>(room, 0)));
    return room > 0;
}

// A stream of the program, whose lines are calls.
struct Output {
    Call& lines;
    int descriptor = -1;
};
Output catalog{catalog_lines}, list{list_lines}, log{log_lines};

ssize_t PutOut(void* cookie, const char* bytes, size_t count) {
    const Output& output = *static_cast<Output*>(cookie);
    return Fails(output.lines) ? 0 : __real_write(output.descriptor, bytes, count);
}

// The stream, or one in its place whose lines can be disturbed.
FILE* StandIn(FILE* opened, Output& output) {
    if (opened == nullptr || (!Counts() && OrderFor(output.lines.name) == nullptr))
        return opened;
    output.descriptor = ::fcntl(::fileno(opened), F_DUPFD_CLOEXEC, 10);
    std::fclose(opened);
    FILE* const stream = ::fopencookie(&output, "w", {nullptr, PutOut, nullptr, nullptr});
    std::setvbuf(stream, nullptr, _IOLBF, BUFSIZ);
    return stream;
}

[[gnu::constructor]] void DisturbTheLog() {
    if (Counts() || OrderFor(log_lines.name) != nullptr)
        stdout = StandIn(__real_fdopen(::dup(STDOUT_FILENO), "w"), log);
}

} // namespace

extern "C" {

int __wrap_poll(pollfd* set, nfds_t count, int milliseconds) {
    const bool waits = milliseconds == 60000 || count == 0; // a minute, or a pause; the rehearsal server polls too
    if (waits && Minute() != 60000)
        milliseconds = static_cast<int>((milliseconds * Minute() + 59999) / 60000);
    return __real_poll(set, count, milliseconds);
}

// A clock on which the short minutes are minutes.
int __wrap_clock_gettime(clockid_t clock, timespec* time) {
    const int result = __real_clock_gettime(clock, time);
    if (clock != CLOCK_MONOTONIC || Minute() == 60000)
        return result;
    constexpr long long second = 1000000000;
    static const long long start = time->tv_sec * second + time->tv_nsec;
    const long long elapsed = time->tv_sec * second + time->tv_nsec - start;
    const long long scaled = start + elapsed * 60000 / std::max(Minute(), 1L);
    *time = {static_cast<time_t>(scaled / second), static_cast<long>(scaled % second)};
    return result;
}

servent* __wrap_getservbyname(const char* name, const char* protocol) {
    servent* const entry = __real_getservbyname(name, protocol);
    const char* const port = std::getenv("VONDRAL_TEST_PORT");
    if (entry != nullptr && port != nullptr)
        entry->s_port = htons(static_cast<in_port_t>(std::strtoul(port, nullptr, 10)));
    return entry;
}

// With VONDRAL_TEST_DISK=direct: direct reads are refused, as of blocks by a disk with sectors of 4096 bytes.
ssize_t __wrap_pread64(int descriptor, void* bytes, size_t count, off_t offset) {
    if (OrderFor("direct") == nullptr || (::fcntl(descriptor, F_GETFL) & O_DIRECT) == 0)
        return __real_pread64(descriptor, bytes, count, offset);
    Mark();
    errno = EINVAL;
    return -1;
}

// With VONDRAL_TEST_DISK=plain (or direct) the system cannot tell what is in its cache.
int __wrap_mincore(void* pages, size_t length, unsigned char* resident) {
    if (OrderFor("plain") == nullptr && OrderFor("direct") == nullptr)
        return __real_mincore(pages, length, resident);
    errno = ENOSYS;
    return -1;
}

int __wrap_fcntl64(int descriptor, int operation, ...) {
    va_list arguments;
    va_start(arguments, operation);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    if (operation != F_SETFL || (argument & O_DIRECT) == 0 || OrderFor("refused") == nullptr)
        return __real_fcntl64(descriptor, operation, argument);
    Mark();
    errno = EINVAL;
    return -1;
}

ssize_t __wrap_write(int descriptor, const void* bytes, size_t count) {
    return Fails(writes, &count) || !HasRoom(descriptor, count) ? -1 : __real_write(descriptor, bytes, count);
}

off_t __wrap_lseek64(int descriptor, off_t offset, int whence) {
    return Fails(seeks) ? -1 : __real_lseek64(descriptor, offset, whence);
}

int __wrap_ftruncate64(int descriptor, off_t length) {
    return Fails(cuts) ? -1 : __real_ftruncate64(descriptor, length);
}

FILE* __wrap_fopen64(const char* path, const char* mode) {
    FILE* const opened = __real_fopen64(path, mode);
    return mode[0] == 'w' ? StandIn(opened, catalog) : opened;
}

FILE* __wrap_fdopen(int descriptor, const char* mode) {
    return StandIn(__real_fdopen(descriptor, mode), list);
}

int __wrap_fdatasync(int descriptor) {
    return Fails(flushes) ? -1 : __real_fdatasync(descriptor);
}
}
