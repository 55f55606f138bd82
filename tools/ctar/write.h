// Writing to a descriptor, for all that does it: also where it must not know the program's headers.

#pragma once

#include <cstddef>

#include <sys/types.h>

// As write(), but waits where that would give EINTR, or EAGAIN of a pipe that its reader has made non-blocking.
ssize_t WriteSome(int descriptor, const void* bytes, std::size_t count);
