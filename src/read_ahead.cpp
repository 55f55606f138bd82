#include "read_ahead.h"

#include <algorithm>
#include <cstring>
#include <system_error>

#include <unistd.h>

ReadAhead::~ReadAhead() {
    End();
}

void ReadAhead::Begin(int descriptor, std::int64_t length) {
    const off_t position = ::lseek(descriptor, 0, SEEK_CUR);
    constexpr std::int64_t furthest = INT64_MAX - static_cast<std::int64_t>(Depth) * Block; // no offset goes beyond
    if (length < Shortest || position < 0 || length > furthest - position)
        return;
    for (Slot& slot : slots_)
        if (!slot.block.Map(static_cast<std::size_t>(Block)))
            return;
    descriptor_ = descriptor;
    from_ = position;
    to_ = position + length;
    ended_ = false;
    std::int64_t first = from_;
    try {
        for (Slot& slot : slots_) {
            slot.reader = std::thread([this, &slot, first] { Fill(slot, first); });
            first += Block;
        }
    } catch (const std::system_error&) {
        End();
    }
}

// Reads every Depth-th block, each once the one before it has been delivered.
void ReadAhead::Fill(Slot& slot, std::int64_t first) noexcept {
    for (std::int64_t at = first; at < to_; at += static_cast<std::int64_t>(Depth) * Block) {
        const auto length = static_cast<std::size_t>(std::min(Block, to_ - at));
        const bool whole = ::pread(descriptor_, slot.block.Data(), length, at) == static_cast<ssize_t>(length);
        std::unique_lock lock(mutex_);
        slot.state = whole ? State::Full : State::Failed;
        slot.changed.notify_one();
        if (!whole)
            return;
        slot.changed.wait(lock, [&] { return ended_ || slot.state == State::Empty; });
        if (ended_)
            return;
    }
}

bool ReadAhead::Deliver(char* buffer, std::size_t length) {
    if (ended_)
        return false;
    Slot& slot = slots_[delivered_ % Depth];
    const std::int64_t left = to_ - from_ - static_cast<std::int64_t>(delivered_) * Block;
    if (static_cast<std::int64_t>(length) != std::min(Block, left) || AwaitBlock(slot) != State::Full ||
        ::lseek(descriptor_, static_cast<off_t>(length), SEEK_CUR) < 0) {
        End();
        return false;
    }
    std::memcpy(buffer, slot.block.Data(), length); // no reader touches a full block
    ++delivered_;
    const std::lock_guard lock(mutex_);
    slot.state = State::Empty;
    slot.changed.notify_one();
    return true;
}

ReadAhead::State ReadAhead::AwaitBlock(Slot& slot) {
    std::unique_lock lock(mutex_);
    slot.changed.wait(lock, [&slot] { return slot.state != State::Empty; });
    return slot.state;
}

void ReadAhead::End() {
    {
        const std::lock_guard lock(mutex_);
        ended_ = true;
    }
    for (Slot& slot : slots_)
        slot.changed.notify_one();
    for (Slot& slot : slots_)
        if (slot.reader.joinable())
            slot.reader.join();
}
