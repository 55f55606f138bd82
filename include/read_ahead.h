// Reading ahead in a file, so that a restore keeps the disk busy.

#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "resources.h"

// Direct I/O has no read-ahead of its own: each read waits for the disk, and the disk for the next read. This keeps
// several reads of a file under way at once, in threads of their own, and delivers their data in order.
//
// The file's position moves only with Deliver(), as with read(). Anything but a whole block of data (the end of the
// file, an error) is left to the caller's own read to find and report.
class ReadAhead {
public:
    // Shorter stretches are not worth the threads.
    static constexpr std::int64_t Shortest = std::int64_t{1} << 20; // bytes

    ReadAhead() = default;
    ~ReadAhead();

    // Begins, once, at the file's position, for `length` bytes from there. Does nothing, so that Deliver() delivers
    // nothing, without threads or memory, for a short stretch, and where there is no position.
    void Begin(int descriptor, std::int64_t length);

    // Delivers the next block, when it is `length` bytes long, and moves the file's position past it. False when that
    // is for read() to do, from then on.
    bool Deliver(char* buffer, std::size_t length);

private:
    enum class State { Empty, Full, Failed };
    struct Slot {
        State state = State::Empty;
        std::condition_variable changed;
        Mapping block; // suits direct input
        std::thread reader;
    };

    static constexpr std::size_t Depth = 8; // reads at once
    static constexpr std::int64_t Block = 65536;

    void Fill(Slot& slot, std::int64_t first) noexcept;
    State AwaitBlock(Slot& slot);
    void End();

    int descriptor_ = -1;
    std::int64_t from_ = 0; // offsets in the file
    std::int64_t to_ = 0;
    std::size_t delivered_ = 0; // blocks
    std::array<Slot, Depth> slots_;
    std::mutex mutex_; // guards the states and ended_
    bool ended_ = true;
};
