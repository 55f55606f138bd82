#include "read_ahead.h"

#include <algorithm>
#include <system_error>

#include <unistd.h>

namespace {

constexpr std::size_t Block = 512;

} // namespace

void ReadAhead::Begin(int descriptor, std::int64_t from, std::int64_t to) {
    if (IsActive() || to - from < PieceSize)
        return;
    for (Piece& piece : pieces_)
        if (!piece.bytes && !piece.bytes.Map(PieceSize))
            return;
    descriptor_ = descriptor;
    used_ = 0;
    filled_ = drained_ = 0;
    stopped_ = false;
    try {
        reader_ = std::thread([this, from, to] { Fill(from, to); });
    } catch (const std::system_error&) {
    }
}

// Ends with a piece that is not full: short, empty after a failure, or empty at the end of the stretch.
void ReadAhead::Fill(std::int64_t from, std::int64_t to) noexcept {
    for (std::uint32_t number = 0;; ++number) {
        for (std::uint32_t drained; !stopped_ && number - (drained = drained_) >= Depth;)
            drained_.wait(drained);
        if (stopped_)
            return;
        Piece& piece = pieces_[number % Depth];
        const auto wanted = static_cast<std::size_t>(std::clamp<std::int64_t>(to - from, 0, PieceSize));
        const ssize_t count = wanted == 0 ? 0 : ::pread(descriptor_, piece.bytes.Data(), wanted, from);
        piece.length = static_cast<std::size_t>(std::max<ssize_t>(count, 0)) / Block * Block;
        from += static_cast<std::int64_t>(piece.length);
        const bool is_last = piece.length < static_cast<std::size_t>(PieceSize);
        filled_ = number + 1;
        filled_.notify_one();
        if (is_last)
            return;
    }
}

std::string_view ReadAhead::Next(std::size_t length) {
    if (!IsActive())
        return {};
    if (used_ == static_cast<std::size_t>(PieceSize)) { // and its last bytes are not in use any more
        used_ = 0;
        ++drained_;
        drained_.notify_one();
    }
    const std::uint32_t number = drained_;
    filled_.wait(number);
    const Piece& piece = pieces_[number % Depth];
    const std::string_view bytes = std::string_view(piece.bytes.Data(), piece.length).substr(used_, length);
    used_ += bytes.size();
    if (bytes.empty()) // the end of the last piece
        End();
    return bytes;
}

void ReadAhead::End() {
    if (!IsActive())
        return;
    stopped_ = true;
    ++drained_; // another value, for a reader that waits
    drained_.notify_one();
    reader_.join();
}
