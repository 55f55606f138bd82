// The archive being read, front to back, from a file or a pipe. It is never opened for writing. Read errors throw
// Failure with the offset; the end of the input is no error here.

#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <sys/stat.h>

#include "ctar.h"
#include "support.h"

enum class Access {
    Forward, // read once, in order: a pipe will do, and "-" is standard input
    Random,  // a file or a block device, for Seek and ReadBlockAt
};

// Whether a backup is at work on that file.
bool IsBeingWritten(const struct stat& file);

class Input {
public:
    // Throws Failure when it cannot be opened, or gives less than `access` asks for. Complains when a backup is
    // writing into it.
    Input(const std::string& path, Access access);

    // The next bytes, at most `most`, valid until the next call; empty only at the end.
    std::span<const char> Read(std::int64_t most);
    // Fills the block as far as the input goes; gives the bytes read.
    std::size_t ReadBlock(CtarBlock& block);
    // Passes over `count` bytes, without reading them where that can be; gives how many were there.
    std::int64_t Skip(std::int64_t count);

    // Require: IsSeekable().
    void Seek(std::int64_t offset);
    std::size_t ReadBlockAt(std::int64_t offset, CtarBlock& block); // as ReadBlock; leaves Offset() alone

    bool IsSeekable() const { return size_ >= 0; }
    std::int64_t Offset() const { return offset_; }
    std::int64_t Size() const { return size_; } // bytes, -1 when only the end will tell
    // Whether `count` bytes stand from Offset() on, as far as that is known before they are read.
    bool MayHold(std::int64_t count) const { return size_ < 0 || count <= size_ - offset_; }
    const std::string& Name() const { return name_; } // for messages
    bool IsUnderWay() const { return under_way_; }    // a backup is writing into it
    // Whether `path` leads to this very file, through whatever links.
    bool IsSameFile(const std::string& path) const;

private:
    std::size_t ReadSome(char* to, std::size_t most, std::int64_t offset);

    std::string name_;
    Descriptor descriptor_;
    struct stat status_ {};
    bool under_way_ = false;
    std::int64_t size_ = -1;
    std::int64_t offset_ = 0; // of the next byte to give out
    std::vector<char> buffer_;
    std::size_t window_;   // bytes to read into it next: few after a jump, more while reading goes straight on
    std::size_t held_ = 0; // bytes in the buffer
    std::size_t used_ = 0; // of these, given out
};
