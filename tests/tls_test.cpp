// The relay between the program and a server that speaks TLS: what it refuses, what it passes on, and what becomes of
// connections that end as they should not.

#include <array>
#include <list>
#include <utility>

#include <netinet/tcp.h>
#include <sys/socket.h>

#include "report.h"
#include "tls_support.h"

namespace {

using rehearsal::Fault;
using Kind = Fault::Kind;

std::vector<Fault> Only(const Fault& fault) {
    return {fault};
}

// A server with TLS, the relay, and runs of the program through it.
struct TlsSite : TestSite {
    RelayOptions relay_options;
    std::unique_ptr<TestRelay> relay; // of the last run

    explicit TlsSite(const std::string& certificate = "good") {
        WriteObjects(root.path);
        options.tls = ServerTls(certificate);
        detour = [this](std::uint16_t port) {
            relay = std::make_unique<TestRelay>(relay_options, port);
            return relay->Port();
        };
    }
    Outcome Backup(const std::vector<Fault>& faults = {}) { return Run({"-b", archive, "-x", "no"}, faults); }
};

// One run: what is different from a good one, and what the relay says of it.
struct RelayCase {
    const char* name;
    const char* certificate;
    std::function<void(TlsSite&)> change;
    std::string log; // part of it; "" when nothing is refused or lost
    std::vector<Fault> faults = {};
};

void PrintTo(const RelayCase& row, std::ostream* out) {
    *out << row.name;
}

std::string NameOf(const testing::TestParamInfo<RelayCase>& row) {
    return row.param.name;
}

class Trust : public testing::TestWithParam<RelayCase> {};

TEST_P(Trust, DecidesBeforeTheLogin) {
    const RelayCase& row = GetParam();
    TlsSite site(row.certificate);
    row.change(site);
    const Outcome outcome = site.Run({"-t"}, row.faults);
    EXPECT_EQ(outcome.status, row.log.empty() ? 0 : 255) << outcome.err << site.relay->Log();
    EXPECT_EQ(Holds(site.Received(), "USER"), row.log.empty()) << site.Received();
    EXPECT_THAT(site.relay->Log(), testing::HasSubstr(row.log));
    EXPECT_EQ(site.relay->Log() == "", row.log.empty());
}

void Unchanged(TlsSite&) {}

void Lenient(TlsSite& site) {
    site.relay_options.accept_missing_close_notify = true;
}

void TrustNobody(TlsSite& site) {
    site.relay_options.tls.ca.clear();
}

auto Pin(const std::string& name, bool with_ca = false) {
    return [name, with_ca](TlsSite& site) {
        site.relay_options.tls.pins = {PinOf("other-ca"), PinOf(name)};
        if (!with_ca)
            TrustNobody(site);
    };
}

const RelayCase TrustCases[] = {
    {"good", "good", Unchanged, ""},
    {"only_1_2", "good", [](TlsSite& site) { site.options.tls.only_1_2 = true; }, ""},
    {"named", "good", [](TlsSite& site) { site.relay_options.tls.name = "localhost"; }, ""},
    {"implicit", "good", [](TlsSite& site) { site.options.tls.implicit = site.relay_options.server.implicit = true; },
     ""},
    {"itself_as_ca", "self-signed", [](TlsSite& site) { site.relay_options.tls.ca = CertificateFile("self-signed"); },
     ""},
    {"issued_as_ca", "good", [](TlsSite& site) { site.relay_options.tls.ca = CertificateFile("good"); }, ""},
    {"pinned", "self-signed", Pin("self-signed"), ""},
    {"pinned_and_ca", "good", Pin("good", true), ""},
    {"client_certificate", "good",
     [](TlsSite& site) {
         site.options.tls.client_ca = CertificateFile("ca");
         site.relay_options.tls.certificate = CertificateFile("client");
         site.relay_options.tls.key = KeyFile("client");
     },
     ""},
    {"no_client_certificate", "good", [](TlsSite& site) { site.options.tls.client_ca = CertificateFile("ca"); },
     "certificate required"},
    {"wrong_ca", "good", [](TlsSite& site) { site.relay_options.tls.ca = CertificateFile("other-ca"); },
     "unable to get local issuer certificate (subject CN = test-good; issuer CN = test-ca); name the "
     "authority that issued it with --ca FILE, or, if this is the server's key, give --pin sha256//"},
    {"self_signed", "self-signed", TrustNobody, "self-signed certificate (subject CN = test-self-signed"},
    {"wrong_name", "wrong-name", Unchanged, "it is for IP Address:127.9.9.9 DNS:other: use that"},
    {"wrong_name_pinned", "wrong-name", Pin("wrong-name"), "IP address mismatch"},
    {"wrong_name_given", "good", [](TlsSite& site) { site.relay_options.tls.name = "as400"; }, "hostname mismatch"},
    {"expired", "expired", Unchanged, "certificate has expired"},
    {"expired_pinned", "expired", Pin("expired"), "renew it on the server"},
    {"another_key_pinned", "good", Pin("client", true), "its key does not match --pin"},
    {"another_self_signed_pinned", "self-signed", Pin("client"), "its key does not match --pin"},
    {"too_old", "good",
     [](TlsSite& site) {
         site.options.tls.only_1_2 = true;
         site.relay_options.tls.min_version = TLS1_3_VERSION;
     },
     "TLS handshake: "},
    {"auth_refused", "good", Unchanged, "the server's reply to AUTH TLS is a refusal: 502 no TLS here",
     Only(Replace("AUTH", "502 no TLS here"))},
    {"text_after_auth", "good", Unchanged, "plain text after the server's reply to AUTH TLS",
     Only(Replace("AUTH", "234 go ahead\r\n250 ok"))},
    {"text_after_greeting", "good", Unchanged, "plain text after the server's greeting",
     Only(Replace("", "220 hello\r\n234 go ahead"))},
    {"plain_instead", "good", [](TlsSite& site) { site.relay_options.server.implicit = true; },
     "TLS handshake: wrong version"},
};

INSTANTIATE_TEST_SUITE_P(Rows, Trust, testing::ValuesIn(TrustCases), NameOf);

class Data : public testing::TestWithParam<RelayCase> {};

TEST_P(Data, IsWholeOrTheObjectFails) {
    const RelayCase& row = GetParam();
    TlsSite plain;
    plain.options.tls = {};
    plain.detour = nullptr;
    ASSERT_EQ(plain.Backup().status, 0);
    TlsSite site(row.certificate);
    row.change(site);
    const Outcome outcome = site.Backup(row.faults);
    const auto entries = ReadArchiveFile(site.archive);
    if (row.log.empty()) {
        EXPECT_EQ(outcome.status, 0) << outcome.err << site.relay->Log();
        EXPECT_EQ(outcome.err, "");
        ASSERT_TRUE(entries);
        EXPECT_EQ(entries->size(), ReadArchiveFile(plain.archive)->size());
        EXPECT_EQ(ReadFile(site.archive).size(), ReadFile(plain.archive).size());
    } else {
        EXPECT_NE(outcome.status, 0);
        EXPECT_THAT(outcome.err, testing::AnyOf(testing::HasSubstr("Backup Failure"), testing::HasSubstr("list failed"),
                                                testing::HasSubstr("login failed"), testing::HasSubstr("PASS")));
    }
    EXPECT_THAT(site.relay->Log(), testing::HasSubstr(row.log));
}

const std::vector<Fault> NeverResumed{OfKind(Kind::DataNoResume, "LIST", 0), OfKind(Kind::DataNoResume, "RETR", 0)};

const RelayCase DataCases[] = {
    {"whole", "good", Unchanged, ""},
    {"resumption_required", "good", [](TlsSite& site) { site.options.tls.require_resumption = true; }, ""},
    {"resumption_required_1_2", "good",
     [](TlsSite& site) { site.options.tls.require_resumption = site.options.tls.only_1_2 = true; }, ""},
    {"never_resumed", "good", Unchanged, "", NeverResumed},
    {"no_longer_resumed", "good", Unchanged, "the server did not resume the TLS session, which it did before",
     Only(OfKind(Kind::DataNoResume, "RETR", 2))},
    {"another_certificate", "good",
     [](TlsSite& site) {
         const std::string file = CertificateFile("soon");
         site.options.tls.unresumed_name = file.substr(0, file.rfind('.'));
     },
     "the data connection has another certificate than the control connection", NeverResumed},
    // The client would look for its data there; the server does not.
    {"elsewhere", "good", [](TlsSite& site) { site.options.passive_address = "127.9.9.9"; }, ""},
    {"no_close_notify", "good", Unchanged, "the server's data connection ended without close_notify",
     Only(OfKind(Kind::DataNoNotify, "RETR", 3))},
    {"no_close_notify_of_a_list", "good", Unchanged, "close_notify", Only(OfKind(Kind::DataNoNotify, "LIST"))},
    {"no_close_notify_accepted", "good", Lenient, "", Only(OfKind(Kind::DataNoNotify, "RETR", 0))},
    {"closed", "good", Unchanged, "without close_notify", Only(OfKind(Kind::DataClose, "RETR", 3, 300))},
    {"cut_in_a_record", "good", Lenient, "the connection ended within a TLS record",
     Only(OfKind(Kind::DataCutRecord, "RETR", 3, 512))},
    {"reset", "good", Lenient, "Connection reset by peer", Only(OfKind(Kind::DataReset, "RETR", 3, 300))},
    {"prot_refused", "good", Unchanged, "the server refuses PROT P: 536 no", Only(Replace("PROT", "536 no"))},
    {"unasked_227", "good", Unchanged, "a 227 reply that nobody asked for",
     Only(Replace("TYPE I", "200-x\r\n227 Entering Passive Mode (127,0,0,1,1,1).\r\n200 y"))},
};

INSTANTIATE_TEST_SUITE_P(Rows, Data, testing::ValuesIn(DataCases), NameOf);

// A restore uploads, and the server accepts an upload only when close_notify ends it. Each connection of the session
// ends with it too, and so each direction.
TEST(Relay, EndsEveryConnectionWithCloseNotify) {
    TlsSite site;
    ASSERT_EQ(site.Backup().status, 0);
    for (int tries = 0; tries < 400 && site.server->OpenSessions() > 0; ++tries)
        ::usleep(5000);
    EXPECT_EQ(site.server->UncleanCount(), 0);
    TlsSite empty;
    std::filesystem::remove_all(empty.root.path);
    std::filesystem::create_directory(empty.root.path);
    const Outcome restored = empty.Run({"-r", site.archive});
    EXPECT_EQ(restored.status, 0) << restored.err << empty.relay->Log();
    EXPECT_EQ(DiffTrees(site.root.path, empty.root.path), "");
    empty.server.reset();
}

// What the server says of an upload counts only when it says it of the whole.
TEST(Relay, CutsUploads) {
    TlsSite site;
    ASSERT_EQ(site.Backup().status, 0);
    for (const auto& [fault, text] : std::vector<std::pair<Fault, std::string>>{
             {Replace("STOR", "150 go\r\n250 done", 6), "the server called the transfer complete before it was"},
             {OfKind(Kind::DataNoResume, "STOR", 6), "did not resume"}}) {
        const Outcome outcome = site.Run({"-r", site.archive}, {fault});
        EXPECT_THAT(outcome.err, testing::HasSubstr("STOR command failed")) << text;
        EXPECT_THAT(site.relay->Log(), testing::HasSubstr(text));
    }
}

TEST(Relay, TellsOnceWhatAcceptingCosts) {
    TlsSite site;
    Lenient(site);
    EXPECT_EQ(site.Backup({OfKind(Kind::DataNoNotify, "RETR", 0)}).status, 0);
    EXPECT_THAT(site.relay->Log(), testing::EndsWith("which is accepted: whoever can end a TCP connection on the way "
                                                     "can now shorten a file, and only the server's reply tells\n"));
    EXPECT_EQ(site.relay->Log().find('\n'), site.relay->Log().size() - 1);
}

TEST(ControlFilter, KnowsWhereRepliesEnd) {
    struct Line {
        const char* text;
        bool ends_reply;
        char kind;
    };
    tls::ReplyTracker tracker;
    for (const Line& line : {Line{"250-first\r\n", false, '2'},
                             {" 250 within\r\n", false, '2'},
                             {"550-also within\r\n", false, '2'},
                             {"250-still\r\n", false, '2'},
                             {"250 last\r\n", true, '2'},
                             {"150-coming\r\n", false, '1'},
                             {"150\r\n", true, '1'},
                             {"no reply-\r\n", true, 'n'},
                             {"\r\n", true, '\r'},
                             {"426 cut\r\n", true, '4'}}) {
        const tls::ReplyTracker::Line tracked = tracker.Track(line.text);
        EXPECT_EQ(tracked.ends_reply, line.ends_reply) << line.text;
        EXPECT_EQ(tracked.kind, line.kind) << line.text;
    }
    EXPECT_EQ(tls::LoggedCommand("pass secret\r\n"), "PASS ****");
    EXPECT_EQ(tls::LoggedCommand("CWD a\tb\r\n"), "CWD a?b");
}

// A client that types its commands.
class Typist {
public:
    explicit Typist(std::uint16_t port, std::uint32_t from = INADDR_LOOPBACK)
        : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
        constexpr timeval patience{10, 0};
        ::setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(from);
        ::bind(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::connect(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
    void ResetOnClose() const { tls::SetResetOnClose(socket_.Get(), true); }
    std::string Say(const std::string& bytes) {
        ::send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        return Listen();
    }
    // The next line, or what precedes the end, and "<end>", "<reset>" or, after ten seconds, "<silence>".
    std::string Listen() {
        std::array<char, 4096> bytes{};
        for (;;) {
            if (const std::size_t end = pending_.find('\n'); end != std::string::npos) {
                const std::string line = pending_.substr(0, end + 1);
                pending_.erase(0, end + 1);
                return line;
            }
            const ssize_t count = ::recv(socket_.Get(), bytes.data(), bytes.size(), 0);
            if (count <= 0)
                return std::exchange(pending_, "") + (count == 0            ? "<end>"
                                                      : errno == ECONNRESET ? "<reset>"
                                                                            : "<silence>");
            pending_.append(bytes.data(), static_cast<std::size_t>(count));
        }
    }

private:
    Descriptor socket_;
    std::string pending_;
};

TEST(Relay, RefusesWhatWouldPassItBy) {
    TlsSite site;
    site.server = std::make_unique<rehearsal::Server>([&] {
        site.options.root = site.root.path;
        site.options.faults = {OfKind(Kind::Reset, "CWD /reset")};
        return site.options;
    }());
    const TestRelay relay({}, site.server->Port());
    Typist typist(relay.Port());
    EXPECT_EQ(typist.Listen(), "220 vondral-tls: 127.0.0.1, TLSv1.3, TLS_AES_256_GCM_SHA384\r\n");
    for (const auto& [command, reply] :
         std::vector<std::pair<std::string, std::string>>{{"EPSV", "502 vondral-tls: EPSV is not"},
                                                          {"PORT 127,0,0,1,9,9", "502 "},
                                                          {"eprt |1|127.0.0.1|9|", "502 "},
                                                          {"AUTH TLS", "502 "},
                                                          {"PBSZ 0", "502 "},
                                                          {"PROT C", "502 "},
                                                          {"CCC", "502 "},
                                                          {"REIN", "502 "},
                                                          {" CCC", "500 "},
                                                          {"\xFF\xF1"
                                                           "CCC",
                                                           "500 "},
                                                          {std::string("CWD x\0CCC", 9), "500 "},
                                                          {"CWD x\rCCC", "500 "},
                                                          {"LIST", "425 "},
                                                          {"PASV", "530 "},
                                                          {"USER fred", "331 "},
                                                          {"PASS secret", "230 "},
                                                          {"CWD /home", "250 "}})
        EXPECT_THAT(typist.Say(command + "\r\n"), testing::StartsWith(reply)) << command;
    EXPECT_EQ(site.Received(), "AUTH TLS|PASV|USER fred|PASS ****|PBSZ 0|PROT P|CWD /home|");
    EXPECT_EQ(typist.Say("CWD /reset\r\n"), "<reset>");
    Typist quits(relay.Port());
    quits.Listen();
    EXPECT_THAT(quits.Say("QUIT\r\n"), testing::StartsWith("221 "));
    EXPECT_EQ(quits.Listen(), "<end>");
    {
        Typist leaves(relay.Port());
        leaves.Listen();
    }
    for (int tries = 0; tries < 400 && site.server->OpenSessions() > 0; ++tries)
        ::usleep(5000);
    EXPECT_EQ(site.server->OpenSessions(), 0);
    Descriptor probe = tls::ConnectTcp(tls::LocalAddress(tls::ListenOn("127.0.0.1:0")), 7, [](auto) { return true; });
    for (const auto& [level, option, expected] :
         {std::tuple{SOL_TCP, TCP_KEEPIDLE, 7}, {SOL_SOCKET, SO_KEEPALIVE, 1}}) {
        int value = 0;
        socklen_t length = sizeof value;
        ::getsockopt(probe.Get(), level, option, &value, &length);
        EXPECT_EQ(value, expected);
    }
}

// Returns the port of the data connection.
std::uint16_t LogInAndPass(Typist& typist) {
    typist.Listen();
    for (const char* const command : {"USER fred\r\n", "PASS secret\r\n", "TYPE I\r\n"})
        typist.Say(command);
    return tls::ParsePassivePort(typist.Say("PASV\r\n")).value_or(0);
}

// Either alone would do for most clients; the program needs both when it is slow.
TEST(Relay, ResetsTheDataAndReplacesTheReplyAfterACut) {
    TlsSite site;
    site.options.root = site.root.path;
    site.options.faults = {OfKind(Kind::DataClose, "RETR", 1, 3)};
    site.server = std::make_unique<rehearsal::Server>(site.options);
    const TestRelay relay({}, site.server->Port());
    Typist typist(relay.Port());
    const std::uint16_t port = LogInAndPass(typist);
    Typist data(port);
    EXPECT_THAT(typist.Say("RETR /home/note\r\n"), testing::StartsWith("150 "));
    EXPECT_EQ(data.Listen(), "not<reset>");
    EXPECT_THAT(typist.Listen(), testing::StartsWith("426 vondral-tls: the server's data connection ended without"));
    Typist(tls::ParsePassivePort(typist.Say("PASV\r\n")).value_or(0)).ResetOnClose();
    typist.Say("STOR /home/new\r\n");
    EXPECT_EQ(typist.Listen(), "426 Data connection closed; transfer ended.\r\n");
    EXPECT_THAT(relay.Log(), testing::HasSubstr("the client's data connection: Connection reset by peer\n"));
}

// Anybody on the machine can connect to the port of a data connection.
TEST(Relay, MovesNoDataWhenSomebodyElseHasConnected) {
    TlsSite site;
    site.options.root = site.root.path;
    site.server = std::make_unique<rehearsal::Server>(site.options);
    const TestRelay relay({}, site.server->Port());
    for (const std::uint32_t address : {INADDR_LOOPBACK, INADDR_LOOPBACK + 1}) {
        Typist typist(relay.Port());
        const std::uint16_t port = LogInAndPass(typist);
        std::list<Typist> strangers;
        for (int i = 0; i < 10; ++i)
            strangers.emplace_back(port, address);
        Typist data(port);
        EXPECT_THAT(typist.Say("RETR /home/note\r\n"), testing::StartsWith("425 vondral-tls: somebody else"));
        EXPECT_EQ(strangers.front().Listen(), "<end>");
        EXPECT_EQ(data.Listen(), "<end>");
    }
}

// The program itself.
class TlsProgram : public testing::Test {
protected:
    TlsSite site{"soon"};
    std::string place;

    void SetUp() override {
        site.options.root = site.root.path;
        site.server = std::make_unique<rehearsal::Server>(site.options);
        place = "127.0.0.1:" + std::to_string(site.server->Port());
    }
    Outcome Run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"--server", place});
        return RunProgram(TLS_UNDER_TEST, arguments);
    }
};

TEST_F(TlsProgram, ShowsTheCertificateAndWarns) {
    const std::string gauges = site.work / "gauges";
    const std::string ca = CertificateFile("ca");
    const Outcome good = Run({"--ca", ca, "--pin", PinOf("soon"), "--check", "--prometheus", gauges});
    EXPECT_EQ(good.status, 0);
    EXPECT_THAT(good.out, testing::HasSubstr("protocol  TLSv1.3\ncipher    TLS_AES_256_GCM_SHA384\n"
                                             "subject   CN = test-soon\nissuer    CN = test-ca\n"));
    EXPECT_THAT(good.err, testing::ContainsRegex("^vondral-tls: warning: the certificate of 127.0.0.1 expires on "
                                                 "20..-..-.. .in (9|10) days.\n$"));
    EXPECT_THAT(ReadFile(gauges), testing::ContainsRegex("\nvondral_tls_certificate_expiry_timestamp_seconds"
                                                         ".server=\"127.0.0.1\". [0-9]+\n$"));
    const Outcome refused = Run({"--check", "--json"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.out, testing::ContainsRegex("^.\"server\":\"127.0.0.1:[0-9]+\",\"ok\":false,\"error\":"));
    EXPECT_THAT(refused.err, testing::StartsWith("vondral-tls: certificate of 127.0.0.1 refused: "));
    for (const auto& [days, warned] : {std::pair{31L, false}, {30L, true}, {0L, true}, {-1L, true}})
        EXPECT_EQ(tls::ExpiryWarning("s", {.expires = days * 86400 + 5}, 0) != "", warned) << days;
}

TEST_F(TlsProgram, RunsACommandAndPassesItsStatusOn) {
    const std::string listen = "127." + std::to_string(::getpid() % 200 + 20) + ".0.9:0";
    const std::string address = listen.substr(0, listen.find(':'));
    const std::vector<std::string> common{"--ca", CertificateFile("ca"), "--listen", listen, "--"};
    const auto run = [&](std::vector<std::string> command) {
        command.insert(command.begin(), common.begin(), common.end());
        return Run(command);
    };
    EXPECT_EQ(run({"echo", "{}", "-s{}:{}"}).out, address + " -s" + address + ":" + address + "\n");
    EXPECT_EQ(run({"sh", "-c", "exit 7"}).status, 7);
    EXPECT_EQ(run({"sh", "-c", "kill -9 $$"}).status, 137);
    EXPECT_EQ(run({"sh", "-c", "trap 'exit 5' TERM; kill $PPID; sleep 9 & wait"}).status, 5);
    EXPECT_EQ(run({"/no/such/program"}).status, 127);
}

TEST_F(TlsProgram, RefusesBadOptionsAndPlaces) {
    for (const auto& [arguments, status, text] : std::vector<std::tuple<std::vector<std::string>, int, std::string>>{
             {{"--listen", "192.0.2.1:2121"}, 1, "not a loopback address"},
             {{"--listen", "0.0.0.0:2121"}, 1, "not a loopback address"},
             {{"--listen", "localhost"}, 1, "not ADDRESS:PORT"},
             {{"--ca", "/none"}, 1, "--ca /none"},
             {{"--cert", "/none"}, 1, "--cert /none"},
             {{"--pin", "sha256//short="}, 2, "44 characters of base64"},
             {{"--min-tls", "1.1"}, 2, "1.1"},
             {{"--json"}, 2, "goes with --check"},
             {{"--key", "/none"}, 2, "goes with --cert"},
             {{"--keep-alive", "0"}, 2, "must be from 1 to 32767"},
             {{"--insecure"}, 2, "--insecure"}}) {
        const Outcome outcome = Run(arguments);
        EXPECT_EQ(outcome.status, status) << outcome.err;
        EXPECT_THAT(outcome.err, testing::AllOf(testing::StartsWith("vondral-tls: "), testing::HasSubstr(text)));
    }
    site.server.reset();
    EXPECT_EQ(Run({"--check"}).err, "vondral-tls: connect to " + place + ": Connection refused\n");
}

// As a service manager does.
TEST_F(TlsProgram, TakesAnInheritedSocket) {
    Descriptor listener = tls::ListenOn("127.0.0.1:0");
    const std::string number = std::to_string(::dup(listener.Get()));
    const std::string port = std::to_string(ntohs(tls::LocalAddress(listener).sin_port));
    const Outcome outcome =
        RunProgram("/bin/bash", {"-c", "LISTEN_PID=$$ LISTEN_FDS=1 exec " TLS_UNDER_TEST " -v --server " + place +
                                           " --ca " + CertificateFile("ca") + " -- echo {} 3<&" + number});
    ::close(std::stoi(number));
    EXPECT_EQ(outcome.out, "127.0.0.1\n");
    EXPECT_THAT(outcome.err, testing::HasSubstr("listening on 127.0.0.1:" + port + " for"));
    {
        const Typist client(ntohs(tls::LocalAddress(listener).sin_port));
        Descriptor(::accept(listener.Get(), nullptr, nullptr)).Reset(); // lingers
    }
    listener.Reset();
    EXPECT_NO_THROW(tls::ListenOn("127.0.0.1:" + port));
}

} // namespace
