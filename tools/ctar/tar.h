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
    // Begins a regular file; `size` bytes of data must follow.
    void Begin(const std::string& name, unsigned permissions, std::time_t mtime, std::int64_t size);
    void Add(std::span<const char> bytes);
    void Close(); // without it the tar archive stays without its end

private:
    struct Closer {
        void operator()(archive* tar) const;
    };
    std::unique_ptr<archive, Closer> tar_;
};
