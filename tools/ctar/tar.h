// Writes a pax tar archive to standard output. Every failure throws Failure.

#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <span>
#include <string>

struct archive;

namespace ctar {

class TarWriter {
public:
    TarWriter();
    // Without Close() the tar archive is left without its end, so that tar sees that it was cut short.
    ~TarWriter() { is_abandoned_ = true; }
    TarWriter(const TarWriter&) = delete;
    TarWriter& operator=(const TarWriter&) = delete;
    // Begins a regular file. Requires: `size` bytes of data follow.
    void BeginFile(const std::string& name, unsigned permissions, std::time_t mtime, std::int64_t size);
    void Write(std::span<const char> bytes);
    void Close();

private:
    struct Closer {
        void operator()(archive* tar) const;
    };
    bool is_abandoned_ = false;
    std::unique_ptr<archive, Closer> tar_;
};

} // namespace ctar
