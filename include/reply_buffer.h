// The bytes of replies that were read from a control connection and not consumed yet, and how many lines they contain.
// Pure bookkeeping; it belongs to the connection's thread.

#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

constexpr std::size_t ReplyCapacity = 4096; // bytes of replies held, and of one reply line with its terminator

class ReplyBuffer {
public:
    void Clear();
    // Where the next read goes; empty when the buffer is full.
    std::span<char> Room();
    // Counts in what a read has put into Room(). Line ends (CR LF) are counted within the bytes of this read alone: one
    // that the network has split is not counted, though FirstLine() ends at it. Replies then lag one behind until
    // Clear().
    void Append(std::size_t count);
    int Lines() const { return lines_; }

    // The first line, without its end. Valid until the buffer changes. Requires, as DropFirstLine() does: Lines() > 0.
    std::string_view FirstLine() const;
    void DropFirstLine();
    // Drops "nnn-text" lines until a final line is first or no line is left.
    void DropIntermediateLines();

private:
    bool StartsWithIntermediateLine() const { return held_ >= 4 && bytes_[3] == '-'; }

    std::array<char, ReplyCapacity> bytes_{};
    std::size_t held_ = 0;
    int lines_ = 0;
};
