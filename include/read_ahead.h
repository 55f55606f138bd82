// Reading ahead in a file, so that a restore keeps the disk busy.

#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <thread>

#include "resources.h"

// Direct I/O has no read-ahead of its own: each read waits for the disk, and the disk for the next read. This reads
// large pieces of a file ahead of their reader, in one thread of its own, and delivers their data in order.
//
// Anything but whole blocks of data (the end of the file, an error) is left to the reader's own read to find and
// report.
class ReadAhead {
public:
    static constexpr std::int64_t PieceSize = std::int64_t{1}
                                              << 20; // bytes; shorter stretches are not worth the thread

    ReadAhead() = default;
    ~ReadAhead() { End(); }

    // Starts reading at `from`, a multiple of the page size, up to `to`, whole blocks later. Does nothing without
    // threads or memory, and for a stretch of less than a piece.
    void Begin(int descriptor, std::int64_t from, std::int64_t to);
    // Whether it was begun and still has something to deliver.
    bool IsActive() const { return reader_.joinable(); }
    // The next bytes, at most `length`, whole blocks, which stay until the next call of Next() or End(). Empty when
    // there are none, and then it is not active any more.
    std::string_view Next(std::size_t length);
    void End();

private:
    static constexpr std::size_t Depth = 3; // pieces
    struct Piece {
        Mapping bytes; // suits direct I/O
        std::size_t length = 0;
    };

    void Fill(std::int64_t from, std::int64_t to) noexcept;

    int descriptor_ = -1;
    std::array<Piece, Depth> pieces_;
    std::size_t used_ = 0; // bytes handed out of the piece that is being drained
    // Counts of pieces. The thread owns a piece from when it has been drained until it is filled again; otherwise the
    // caller does. The last one is not a full one.
    std::atomic<std::uint32_t> filled_ = 0;
    std::atomic<std::uint32_t> drained_ = 0;
    std::atomic<bool> stopped_ = false;
    std::thread reader_;
};
