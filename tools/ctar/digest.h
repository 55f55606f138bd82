// SHA-256, as `ctar sum` writes it.

#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

// Throws Failure when libcrypto refuses.
class Digest {
public:
    Digest();
    bool Add(std::span<const char> bytes); // true, as a Sink (entry.h) that wants more
    std::string Hex();                     // 64 lower-case digits, once

private:
    struct Closer {
        void operator()(evp_md_ctx_st* context) const;
    };
    std::unique_ptr<evp_md_ctx_st, Closer> context_;
};

// The first 64 bits of the text's SHA-256: nobody finds two names that share them by accident.
std::uint64_t ShortDigest(std::string_view text);
