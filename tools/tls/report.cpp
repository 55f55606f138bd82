#include "report.h"

#include <cerrno>

#include <nlohmann/json.hpp>

#include "text.h"

namespace tls {

namespace {

constexpr int CheckPatience = 30000; // milliseconds
constexpr long ExpiryNotice = 30;    // days

bool WaitBriefly(std::span<pollfd> own) {
    int events = 0;
    do
        events = ::poll(own.data(), own.size(), CheckPatience);
    while (events < 0 && errno == EINTR);
    return events > 0;
}

} // namespace

ServerReport CheckServer(const ServerSettings& settings, const TlsContext& context) {
    ServerReport report;
    report.server = FormatText("%s:%d", settings.host.c_str(), settings.port);
    try {
        const ServerConnection server = OpenServer(settings, context, WaitBriefly);
        report.protocol = server.stream->Protocol();
        report.cipher = server.stream->Cipher();
        report.certificate = server.stream->Certificate();
        server.stream->CloseNotify();
    } catch (const RelayError& error) {
        report.error = error.what();
    }
    return report;
}

std::string ReportText(const ServerReport& report, std::time_t now) {
    const CertificateFacts& certificate = report.certificate;
    return FormatText("server    %s\n"
                      "protocol  %s\n"
                      "cipher    %s\n"
                      "subject   %s\n"
                      "issuer    %s\n"
                      "names     %s\n"
                      "expires   %s (in %ld days)\n"
                      "pin       %s\n",
                      report.server.c_str(), report.protocol.c_str(), report.cipher.c_str(),
                      certificate.subject.c_str(), certificate.issuer.c_str(), certificate.names.c_str(),
                      FormatDay(certificate.expires).c_str(), DaysUntil(certificate.expires, now),
                      certificate.pin.c_str());
}

std::string ReportJson(const ServerReport& report, std::time_t now) {
    const CertificateFacts& certificate = report.certificate;
    nlohmann::ordered_json record{{"server", report.server}, {"ok", report.error.empty()}};
    if (!report.error.empty())
        record["error"] = report.error;
    if (certificate.IsKnown()) {
        record.update({{"protocol", report.protocol},
                       {"cipher", report.cipher},
                       {"subject", certificate.subject},
                       {"issuer", certificate.issuer},
                       {"names", certificate.names},
                       {"expires", certificate.expires},
                       {"expires_in_days", DaysUntil(certificate.expires, now)},
                       {"pin", certificate.pin}});
    }
    return record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string Gauges(const std::string& server, const CertificateFacts& certificate) {
    std::string label;
    for (const char c : server)
        label += c == '"' || c == '\\' ? std::string{'\\', c} : std::string{c};
    constexpr char name[] = "vondral_tls_certificate_expiry_timestamp_seconds";
    return FormatText("# HELP %s When the server's certificate expires.\n# TYPE %s gauge\n%s{server=\"%s\"} %lld\n",
                      name, name, name, label.c_str(), static_cast<long long>(certificate.expires));
}

std::string ExpiryWarning(const std::string& server, const CertificateFacts& certificate, std::time_t now) {
    const long days = DaysUntil(certificate.expires, now);
    return days > ExpiryNotice ? ""
                               : FormatText("warning: the certificate of %s expires on %s (in %ld days)",
                                            server.c_str(), FormatDay(certificate.expires).c_str(), days);
}

} // namespace tls
