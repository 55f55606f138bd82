#include "digest.h"

#include <array>
#include <cstring>

#include <openssl/evp.h>

#include "messages.h"
#include "text.h"

namespace ctar {

namespace {

using Sha256 = std::array<unsigned char, 32>;

void Require(int result) {
    if (result != 1)
        throw Failure("SHA-256: libcrypto failed");
}

} // namespace

void Digest::Closer::operator()(evp_md_ctx_st* context) const {
    EVP_MD_CTX_free(context);
}

Digest::Digest() : context_(EVP_MD_CTX_new()) {
    Require(context_ != nullptr && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
}

void Digest::Add(std::span<const char> bytes) {
    Require(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()));
}

std::string Digest::Hex() {
    Sha256 sum;
    Require(EVP_DigestFinal_ex(context_.get(), sum.data(), nullptr));
    std::string text;
    for (const unsigned char byte : sum)
        text += FormatText("%02x", static_cast<unsigned>(byte));
    return text;
}

std::uint64_t ShortDigest(std::string_view text) {
    Sha256 sum;
    Require(EVP_Digest(text.data(), text.size(), sum.data(), nullptr, EVP_sha256(), nullptr));
    std::uint64_t front;
    std::memcpy(&front, sum.data(), sizeof front);
    return front;
}

} // namespace ctar
