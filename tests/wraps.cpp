// Stand-ins for two libc calls, put in at link time (--wrap). Both are driven by the environment, so that
// they serve the program under test as well as tests that link the modules.

#include <cstdlib>

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>

extern "C" {

int __real_poll(pollfd* set, nfds_t count, int milliseconds);
servent* __real_getservbyname(const char* name, const char* protocol);

// The program's minute lasts VONDRAL_TEST_MINUTE milliseconds.
int __wrap_poll(pollfd* set, nfds_t count, int milliseconds) {
    const char* const minute = std::getenv("VONDRAL_TEST_MINUTE");
    if (milliseconds == 60000 && minute != nullptr)
        milliseconds = static_cast<int>(std::strtol(minute, nullptr, 10));
    return __real_poll(set, count, milliseconds);
}

// Every service has the port VONDRAL_TEST_PORT.
servent* __wrap_getservbyname(const char* name, const char* protocol) {
    servent* const entry = __real_getservbyname(name, protocol);
    const char* const port = std::getenv("VONDRAL_TEST_PORT");
    if (entry != nullptr && port != nullptr)
        entry->s_port = htons(static_cast<in_port_t>(std::strtoul(port, nullptr, 10)));
    return entry;
}
}
