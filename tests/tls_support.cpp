#include "tls_support.h"

#include <csignal>
#include <openssl/pem.h>

namespace {

void OpenSsl(const std::string& words) {
    const Outcome outcome = RunProgram("/bin/sh", {"-c", "openssl " + words});
    if (outcome.status != 0)
        throw std::runtime_error("openssl " + words + ": " + outcome.err);
}

tls::CertificateOwner ReadCertificate(const std::string& path) {
    const Stream file(std::fopen(path.c_str(), "r"));
    return tls::CertificateOwner(PEM_read_X509(file.get(), nullptr, nullptr, nullptr));
}

struct Certificates {
    TempDir directory;

    Certificates() {
        Make("ca", "-days 30");
        Make("other-ca", "-days 30");
        Make("self-signed", "-days 90 " + Names("127.0.0.1"));
        Make("good", "-days 90 " + Names("127.0.0.1") + IssuedByCa());
        Make("wrong-name", "-days 90 " + Names("127.9.9.9") + IssuedByCa());
        Make("soon", "-days 10 " + Names("127.0.0.1") + IssuedByCa());
        Make("expired", "-days 1 " + Names("127.0.0.1") + IssuedByCa());
        Age("expired");
        Make("client", "-days 90" + IssuedByCa());
    }

    std::string Path(const std::string& name) const { return directory / name; }

private:
    static std::string Names(const std::string& address) {
        return "-addext subjectAltName=IP:" + address + (address == "127.0.0.1" ? ",DNS:localhost" : ",DNS:other");
    }
    std::string IssuedByCa() const { return " -CA " + Path("ca.pem") + " -CAkey " + Path("ca.key"); }
    void Make(const std::string& name, const std::string& more) const {
        OpenSsl("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=test-" + name + " -keyout " +
                Path(name + ".key") + " -out " + Path(name + ".pem") + " " + more);
    }
    // Moves the end of the certificate to yesterday.
    void Age(const std::string& name) const {
        constexpr long day = 86400;
        const tls::CertificateOwner certificate = ReadCertificate(Path(name + ".pem"));
        const Stream key_file(std::fopen(Path("ca.key").c_str(), "r"));
        const std::unique_ptr<EVP_PKEY, tls::Freer<EVP_PKEY_free>> key(
            PEM_read_PrivateKey(key_file.get(), nullptr, nullptr, nullptr));
        X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -2 * day);
        X509_gmtime_adj(X509_getm_notAfter(certificate.get()), -day);
        X509_sign(certificate.get(), key.get(), EVP_sha256());
        const Stream file(std::fopen(Path(name + ".pem").c_str(), "w"));
        PEM_write_X509(file.get(), certificate.get());
    }
};

const Certificates& TheCertificates() {
    static const Certificates certificates;
    return certificates;
}

} // namespace

std::string CertificateFile(const std::string& name) {
    return TheCertificates().Path(name + ".pem");
}

std::string KeyFile(const std::string& name) {
    return TheCertificates().Path(name + ".key");
}

Outcome RunProgram(const std::string& executable, const std::vector<std::string>& arguments) {
    Program program;
    program.executable = executable;
    program.arguments = arguments;
    return program.Run();
}

std::string PinOf(const std::string& name) {
    return tls::PublicKeyPin(ReadCertificate(CertificateFile(name)).get());
}

rehearsal::TlsOptions ServerTls(const std::string& certificate) {
    return {.certificate = CertificateFile(certificate), .key = KeyFile(certificate)};
}

TestRelay::TestRelay(RelayOptions options, std::uint16_t server_port)
    : state_{.server = {options.server.host, server_port, options.server.implicit, options.server.keep_alive},
             .context = tls::TlsContext(options.tls),
             .accept_missing_close_notify = options.accept_missing_close_notify,
             .verbose = false,
             .log =
                 [this](const std::string& line) {
                     const std::lock_guard lock(mutex_);
                     log_ += line + "\n";
                 },
             .on_certificate = nullptr},
      relay_(state_, tls::ListenOn("127.0.0.1:0")) {
    std::signal(SIGPIPE, SIG_IGN); // as the program does
}

std::string TestRelay::Log() const {
    const std::lock_guard lock(mutex_);
    return log_;
}
