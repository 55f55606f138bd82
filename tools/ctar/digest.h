// SHA-256, as `ctar sum` writes it.

#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace ctar {

// Throws Failure when libcrypto fails.
class Digest {
public:
    Digest();
    void Add(std::span<const char> bytes);
    std::string Hex(); // 64 lower-case digits; call it once, at the end

private:
    struct Closer {
        void operator()(evp_md_ctx_st* context) const;
    };
    std::unique_ptr<evp_md_ctx_st, Closer> context_;
};

// The first 64 bits of the text's SHA-256, too many for two names to share them by accident.
std::uint64_t ShortDigest(std::string_view text);

} // namespace ctar
