// Owners of system resources, and the two calls that move bytes through a descriptor. Each resource has one owner; its
// destructor gives the resource back.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <new>
#include <utility>

#include <sys/types.h>

// Owns a file descriptor; -1 while there is none.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int value) : value_(value) {}
    Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        if (this != &other)
            Reset(std::exchange(other.value_, -1));
        return *this;
    }
    ~Descriptor() { Reset(); }

    int Get() const { return value_; }
    bool IsOpen() const { return value_ >= 0; }
    // Closes the descriptor and returns the result of close(), or -1 when none was open. The descriptor is gone either
    // way.
    int Close();
    void Reset(int value = -1); // leaves errno alone

private:
    int value_ = -1;
};

// Opens /dev/null, with these flags of open(), for each standard descriptor that the caller left closed, so that no
// other file becomes one; with O_RDONLY a write there still fails. Returns false when /dev/null cannot be opened.
bool ReserveStandardDescriptors(int flags);

// Owns anonymous private pages, readable and writable, zeroed when mapped. Their address suits direct I/O.
class Mapping {
public:
    Mapping() = default;
    Mapping(Mapping&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}
    Mapping& operator=(Mapping&& other) noexcept {
        std::swap(data_, other.data_);
        std::swap(size_, other.size_);
        return *this;
    }
    ~Mapping();

    // Maps `size` bytes; returns false, with errno set, when the system refuses.
    bool Map(std::size_t size);
    char* Data() const { return data_; }
    explicit operator bool() const { return data_ != nullptr; }

private:
    char* data_ = nullptr;
    std::size_t size_ = 0;
};

struct StreamCloser {
    void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, StreamCloser>;

// Returns a new zeroed record, or nothing when memory is short: for records whose absence a caller reports.
template <class Record>
std::unique_ptr<Record> NewRecord() {
    try {
        return std::make_unique<Record>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

// As read() and write(), but they start over after a signal (EINTR), and wait where the descriptor does not block
// (EAGAIN): the other user of a pipe or a terminal may have set that.
ssize_t ReadSome(int descriptor, void* bytes, std::size_t count);
ssize_t WriteSome(int descriptor, const void* bytes, std::size_t count);

// As sendfile(), but from `offset`, and without SIGPIPE when the socket is broken.
ssize_t SendFile(int socket, int file, std::int64_t offset, std::size_t count);

// Writes all of it, in as many calls as that takes. Returns false with errno set (0 when a write took nothing).
bool WriteAll(int descriptor, const void* bytes, std::size_t count);
