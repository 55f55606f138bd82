#include "certificate.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <memory>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>

#include "openssl_owners.h"
#include "text.h"

namespace tls {

namespace {

constexpr std::string_view PinPrefix = "sha256//";
constexpr std::size_t DigestBase64 = 44; // characters of a SHA-256 digest, with one "=" at the end

using NamesOwner = std::unique_ptr<GENERAL_NAMES, Freer<GENERAL_NAMES_free>>;

std::string OneLine(const X509_NAME* name) {
    const BioOwner text(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(text.get(), name, 0, XN_FLAG_ONELINE & ~ASN1_STRFLGS_ESC_MSB);
    return MaskControls(BioText(text.get()));
}

// As "DNS:as400.example.com IP Address:10.1.2.3"
std::string AlternativeNames(X509* certificate) {
    const NamesOwner names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    const BioOwner text(BIO_new(BIO_s_mem()));
    for (int i = 0; names != nullptr && i < sk_GENERAL_NAME_num(names.get()); ++i) {
        BIO_puts(text.get(), i > 0 ? " " : "");
        GENERAL_NAME_print(text.get(), sk_GENERAL_NAME_value(names.get(), i));
    }
    return MaskControls(BioText(text.get()));
}

std::time_t Moment(const ASN1_TIME* time) {
    std::tm fields{};
    return ASN1_TIME_to_tm(time, &fields) == 1 ? ::timegm(&fields) : 0;
}

} // namespace

std::string OpenSslError() {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    const char* const reason = code != 0 ? ERR_reason_error_string(code) : nullptr;
    return reason != nullptr ? reason : code != 0 ? FormatText("error %lX", code) : "";
}

std::string BioText(BIO* bio) {
    char* bytes = nullptr;
    const long length = BIO_get_mem_data(bio, &bytes);
    return length > 0 ? std::string(bytes, static_cast<std::size_t>(length)) : "";
}

std::string PublicKeyPin(X509* certificate) {
    unsigned char* encoded = nullptr;
    const int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &encoded);
    if (length <= 0)
        return "";
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    SHA256(encoded, static_cast<std::size_t>(length), digest.data());
    OPENSSL_free(encoded);
    std::array<unsigned char, DigestBase64 + 1> text{};
    EVP_EncodeBlock(text.data(), digest.data(), static_cast<int>(digest.size()));
    return std::string(PinPrefix) + reinterpret_cast<const char*>(text.data());
}

bool IsPin(const std::string& text) {
    std::string_view rest = text;
    if (!ConsumePrefix(rest, PinPrefix) || rest.size() != DigestBase64 || !rest.ends_with('='))
        return false;
    const auto is_base64 = [](unsigned char c) { return std::isalnum(c) != 0 || c == '+' || c == '/'; };
    rest.remove_suffix(1);
    return std::ranges::all_of(rest, is_base64);
}

CertificateFacts ReadCertificate(X509* certificate) {
    return {.subject = OneLine(X509_get_subject_name(certificate)),
            .issuer = OneLine(X509_get_issuer_name(certificate)),
            .names = AlternativeNames(certificate),
            .pin = PublicKeyPin(certificate),
            .not_before = Moment(X509_get0_notBefore(certificate)),
            .expires = Moment(X509_get0_notAfter(certificate))};
}

std::string FormatDay(std::time_t moment) {
    std::tm fields{};
    std::array<char, 32> text{};
    ::gmtime_r(&moment, &fields);
    std::strftime(text.data(), text.size(), "%Y-%m-%d", &fields);
    return text.data();
}

long DaysUntil(std::time_t moment, std::time_t now) {
    constexpr std::time_t day = 24 * 60 * 60;
    const std::time_t left = moment - now;
    return static_cast<long>(left >= 0 ? left / day : -((-left + day - 1) / day));
}

} // namespace tls
