// A pax tar archive being written to standard output. What goes wrong throws Failure.

#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <span>
#include <string>

struct archive;

class TarWriter {
public:
    TarWriter();
    // Without Close() nothing more is written: the tar archive stays without its end, as one that was cut.
    ~TarWriter() { abandoned_ = true; }
    TarWriter(const TarWriter&) = delete;
    TarWriter& operator=(const TarWriter&) = delete;
    // Begins a regular file; `size` bytes of data must follow.
    void Begin(const std::string& name, unsigned permissions, std::time_t mtime, std::int64_t size);
    void Add(std::span<const char> bytes);
    void Close();

private:
    struct Closer {
        void operator()(archive* tar) const;
    };
    bool abandoned_ = false;
    std::unique_ptr<archive, Closer> tar_;
};
