// Owners of OpenSSL's objects, and its error texts.

#pragma once

#include <memory>
#include <string>

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

namespace tls {

template <auto Free>
struct Freer {
    template <class Object>
    void operator()(Object* object) const {
        Free(object);
    }
};

using SslContextOwner = std::unique_ptr<SSL_CTX, Freer<SSL_CTX_free>>;
using SslOwner = std::unique_ptr<SSL, Freer<SSL_free>>;
using SessionOwner = std::unique_ptr<SSL_SESSION, Freer<SSL_SESSION_free>>;
using CertificateOwner = std::unique_ptr<X509, Freer<X509_free>>;
using BioOwner = std::unique_ptr<BIO, Freer<BIO_free>>;

// The reason of the oldest error in this thread's queue, which is emptied; "" when there is none.
std::string OpenSslError();

// What has been written to a memory BIO.
std::string BioText(BIO* bio);

} // namespace tls
