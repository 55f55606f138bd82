// vondral-tls: takes plain FTP on a loopback address and speaks TLS to the server.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include "command.h"
#include "options.h"
#include "output_file.h"
#include "relay.h"
#include "report.h"
#include "resources.h"
#include "sockets.h"
#include "text.h"

namespace tls {

namespace {

// One write, so that lines of different sessions never mix.
void Log(const std::string& line) {
    const std::string text = "vondral-tls: " + MaskControls(line) + "\n";
    WriteAll(STDERR_FILENO, text.data(), text.size());
}

void ReportCertificate(const Options& options, const CertificateFacts& certificate) {
    const std::string warning = ExpiryWarning(options.server.host, certificate, std::time(nullptr));
    if (!warning.empty())
        Log(warning);
    if (!options.prometheus.empty() &&
        !report::ReplaceFile(options.prometheus, Gauges(options.server.host, certificate)))
        Log(options.prometheus + ": " + std::strerror(errno));
}

// Decides when a certificate is reported: at first, when it is another one, and once a day.
class CertificateNews {
public:
    bool IsDue(const CertificateFacts& certificate, std::time_t now) { // any thread may call it
        constexpr std::time_t day = 86400;
        const std::lock_guard lock(mutex_);
        const std::string known = std::to_string(certificate.expires) + certificate.pin;
        if (known == known_ && now >= told_ && now - told_ < day)
            return false;
        known_ = known;
        told_ = now;
        return true;
    }

private:
    std::mutex mutex_;
    std::time_t told_ = 0;
    std::string known_; // expiry and pin of the one reported last
};

int Check(const Options& options) {
    const ServerReport report = CheckServer(options.server, TlsContext(options.tls));
    const std::time_t now = std::time(nullptr);
    if (options.json || report.error.empty())
        std::fputs((options.json ? ReportJson(report, now) : ReportText(report, now)).c_str(), stdout);
    const bool is_written = std::fflush(stdout) == 0;
    if (!is_written)
        Log(std::string("standard output: ") + std::strerror(errno));
    if (report.error.empty())
        ReportCertificate(options, report.certificate);
    else
        Log(report.error);
    return is_written && report.error.empty() ? Done : Trouble;
}

Descriptor OpenListener(const Options& options) {
    Descriptor listener = InheritedListener();
    if (listener.IsOpen())
        return listener;
    if (options.listen.empty() && !options.command.empty())
        return ListenAnywhere();
    return ListenOn(options.listen.empty() ? "127.0.0.5:21" : options.listen);
}

int Serve() {
    const sigset_t ends = EndSignals();
    int signal = 0;
    ::sigwait(&ends, &signal);
    return Done;
}

int RunRelay(const Options& options) {
    CertificateNews news;
    RelayState state{.server = options.server,
                     .context = TlsContext(options.tls),
                     .accept_missing_close_notify = options.accept_missing_close_notify,
                     .verbose = options.verbose,
                     .log = Log,
                     .on_certificate = [&](const CertificateFacts& certificate) {
                         if (news.IsDue(certificate, std::time(nullptr)))
                             ReportCertificate(options, certificate);
                     }};
    const Relay relay(state, OpenListener(options));
    const sockaddr_in address = LocalAddress(relay.Listener());
    if (options.command.empty() || options.verbose)
        Log(FormatText("listening on %s:%d for %s:%d", FormatAddress(address).c_str(), ntohs(address.sin_port),
                       options.server.host.c_str(), options.server.port));
    if (options.command.empty())
        return Serve();
    std::string error;
    const int status = RunCommand(SubstituteAddress(options.command, FormatAddress(address)), error);
    if (!error.empty())
        Log(error);
    return status;
}

int Main(int argc, char** argv) {
    if (!ReserveStandardDescriptors(O_RDWR))
        return Trouble;
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL); // ignored, it would take the exit status of the command away
    Options options;
    if (const std::optional<int> status = ParseOptions(argc, argv, options))
        return *status;
    sigset_t awaited = EndSignals(); // before the first thread exists: all of them block these
    ::sigaddset(&awaited, SIGCHLD);
    ::pthread_sigmask(SIG_BLOCK, &awaited, nullptr);
    try {
        return options.check ? Check(options) : RunRelay(options);
    } catch (const std::exception& error) {
        Log(error.what());
        return Trouble;
    }
}

} // namespace

} // namespace tls

int main(int argc, char** argv) {
    return tls::Main(argc, argv);
}
