// Reading ahead in a file: the silent part of a restore that keeps the disk at work.

#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "support.h"

// Direct input has no read-ahead of its own: each read waits for the disk, and the disk for the next read. This keeps
// several reads of a file under way at once, from threads of their own, and gives their data in order.
//
// The file's position moves only with Take(), as with read(). Whatever is not a whole block of data, the end of the
// file or an error, is left to the caller's own read to find out and tell.
class ReadAhead {
public:
    // Shorter stretches are not worth the threads.
    static constexpr std::int64_t Shortest = std::int64_t{1} << 20; // bytes

    ReadAhead() = default;
    ~ReadAhead();

    // Begins, once, at the file's position, for `length` bytes from there. Without threads or memory, for a short
    // stretch and where there is no position, nothing is begun, and Take() gives nothing.
    void Begin(int descriptor, std::int64_t length);

    // Gives the next block, when it is `length` bytes long, and moves the file's position behind it. False when that
    // is for read() to do, from then on.
    bool Take(char* buffer, std::size_t length);

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
    std::size_t taken_ = 0; // blocks
    std::array<Slot, Depth> slots_;
    std::mutex mutex_; // guards the states and ended_
    bool ended_ = true;
};
