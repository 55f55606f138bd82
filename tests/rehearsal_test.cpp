// The rehearsal server where runs of the client do not reach it: refusals, privacy of QTEMP, paths that lead out,
// faults that the client never sees to their end, and the options of the program.

#include <chrono>
#include <csignal>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "option_values.h"
#include "resources.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using std::string;

Descriptor Connect(unsigned long port) {
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{AF_INET, htons(static_cast<in_port_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    const timeval patience{20, 0}; // a missing reply must not block the test forever
    ::setsockopt(socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const bool connected = ::connect(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    return connected ? std::move(socket) : Descriptor();
}

// Up to `count` bytes; fewer only when the connection ends.
string Receive(const Descriptor& socket, std::size_t count = 1 << 20) {
    string bytes(count, '\0');
    const ssize_t received = ::recv(socket.Get(), bytes.data(), count, MSG_WAITALL);
    return bytes.substr(0, static_cast<std::size_t>(std::max<ssize_t>(received, 0)));
}

// Talks to the server without the client's modules, so that a test sees every byte of a reply.
struct Client {
    Descriptor control;

    explicit Client(unsigned long port, bool log_in = true) : control(Connect(port)) {
        if (log_in)
            for (const char* command : {"", "USER fred", "PASS secret", "TYPE I"})
                (*command == '\0') ? Reply() : Ask(command);
    }
    void Send(const string& command) const {
        const string line = command + "\r\n";
        EXPECT_TRUE(WriteAll(control.Get(), line.data(), line.size()));
    }
    // One whole reply, or the bytes received before the connection ended.
    string Reply() const {
        string reply;
        std::size_t line = 0;
        for (string byte = Receive(control, 1); !byte.empty(); byte = Receive(control, 1)) {
            reply += byte;
            if (byte == "\n" && reply[line + 3] == ' ')
                break;
            line = byte == "\n" ? reply.size() : line;
        }
        return reply;
    }
    string Ask(const string& command) const {
        Send(command);
        return Reply();
    }
    Descriptor OpenData() const {
        const string reply = Ask("PASV");
        const std::size_t last = reply.rfind(','), before = reply.rfind(',', last - 1);
        return Connect(std::stoul(reply.substr(before + 1)) << 8 | std::stoul(reply.substr(last + 1)));
    }
};

struct Site {
    TempDir root;
    std::unique_ptr<rehearsal::Server> server;

    explicit Site(rehearsal::Options options = {}) {
        WriteFile(root / "QSYS.LIB/TOOLS.LIB/RUN.PGM", "run");
        WriteFile(root / "home/f", string(2000, 'f'));
        WriteFile(root / "home/note", "note");
        options.root = root.path;
        server = std::make_unique<rehearsal::Server>(options);
    }
    Client LogIn() const { return Client(server->Port()); }
};

constexpr char CreateSaveFile[] = "RCMD CRTSAVF FILE(QTEMP/S)";
constexpr char SaveHome[] = "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('\"/home\"')) SUBTREE(*ALL) PRECHK(*NO)";

TEST(Rehearsal, RefusesWhatARealServerWould) {
    const Site site;
    const Client client = site.LogIn();
    ASSERT_EQ(client.Ask(CreateSaveFile), "250 File S created in library QTEMP.\r\n");
    struct Row {
        const char* command;
        const char* refusal; // part of it
    };
    for (const Row& row :
         {Row{"NOOP2", "501 NOOP2 unsuccessful; specified subcommand not recognized."},
          {"TIME 1 0", "501 TIME"},
          {"TIME 10000000", "501 TIME"},
          {"TIME 9 9x", "501 TIME"},
          {"RCMD STRPDM", "STRPDM"},
          {"RCMD SAVLIB DEV(*SAVF) SAVF(QTEMP/S)", "LIB"},
          {"RCMD SAVLIB LIB(TOOLS) DEV(*SAVF) SAVF(QTEMP/S) COLOR(RED)", "COLOR"},
          {"RCMD SAVLIB LIB(ELEVENCHARS) DEV(*SAVF) SAVF(QTEMP/S)", "550"},
          {"RCMD SAVLIB LIB(NONE) DEV(*SAVF) SAVF(QTEMP/S)", "NONE"},
          {"RCMD SAVLIB LIB(TOOLS) DEV(*SAVF) SAVF(QTEMP/T)", "File T in library QTEMP not found."},
          {"RCMD SAVLIB LIB(TOOLS DEV(*SAVF) SAVF(QTEMP/S)", "550"},
          {"RCMD CRTSAVF FILE(QTEMP/S)", "File S not created in library QTEMP."},
          {"RCMD CLRSAVF FILE(QTEMP/T)", "File T in library QTEMP not found."},
          {"RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('\"/none\"')) SUBTREE(*ALL)", "none"},
          {"RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('\"/home/../home/f\"')) SUBTREE(*ALL)", "550"},
          {"RCMD RSTLIB SAVLIB(TOOLS) DEV(*SAVF) SAVF(QTEMP/S)", "Save file S in QTEMP contains no data."},
          {"LIST /none", "550  Path does not exist: /none"},
          {"RETR /home", "550  Unable to find file /home"},
          {"STOR /home/g", "425 Not able to open data connection."},
          {"MKD /../out", "550"}}) {
        const string reply = client.Ask(row.command);
        EXPECT_TRUE(Holds(reply, row.refusal)) << row.command << ": " << reply;
    }
    EXPECT_EQ(client.Ask("RCMD SAVLIB LIB(" + string(1000, 'X') + ")").substr(0, 3), "501");
    EXPECT_FALSE(fs::exists(site.root.path.parent_path() / "out"));
}

TEST(Rehearsal, QtempBelongsToOneSessionAndGoesWithIt) {
    const Site site;
    {
        const Client client = site.LogIn();
        EXPECT_EQ(client.Ask(CreateSaveFile).substr(0, 3), "250");
        EXPECT_EQ(site.LogIn().Ask("RCMD CLRSAVF FILE(QTEMP/S)").substr(0, 3), "550");
        EXPECT_EQ(client.Ask("QUIT").substr(0, 3), "221");
    }
    EXPECT_EQ(site.LogIn().Ask("RCMD CLRSAVF FILE(QTEMP/S)").substr(0, 3), "550");
}

TEST(Rehearsal, OrdinaryFilesAreTransferred) {
    const Site site;
    const Client client = site.LogIn();
    const string bytes = "line\r\n" + string(600'000, '\0') + "end";
    {
        const Descriptor data = client.OpenData();
        client.Send("STOR /home/new");
        EXPECT_TRUE(WriteAll(data.Get(), bytes.data(), bytes.size()));
    }
    EXPECT_EQ(client.Reply(), "150 Sending file to /home/new\r\n");
    EXPECT_EQ(client.Reply(), "250 File transfer completed successfully.\r\n");
    EXPECT_EQ(ReadFile(site.root / "home/new"), bytes);
    struct Row {
        const char* command;
        string start, end; // of the data
        std::size_t size;
    };
    fs::permissions(site.root / "home/note", fs::perms{0640});
    for (const Row& row : {Row{"RETR /home/new", bytes, bytes, bytes.size()},
                           {"RETR /home/note", "note", "note", 4},
                           {"LIST /home/note", "-rw-r-----   1 QPGMR    0              4 ", " note\r\n", 60}}) {
        const Descriptor data = client.OpenData();
        EXPECT_EQ(client.Ask(row.command).substr(0, 1), "1");
        const string received = Receive(data);
        EXPECT_TRUE(received.starts_with(row.start) && received.ends_with(row.end)) << received.substr(0, 100);
        EXPECT_EQ(received.size(), row.size) << row.command;
        EXPECT_TRUE(Holds(client.Reply(), "completed")) << row.command;
    }
}

TEST(Rehearsal, ABrokenDataConnectionEndsTheTransferOnly) {
    const Site site;
    const Client client = site.LogIn();
    for (const char* command : {"RETR /home/f", "LIST /home", "STOR /home/g"}) {
        Descriptor data = client.OpenData();
        const linger reset{1, 0};
        ::setsockopt(data.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        data.Reset();
        EXPECT_EQ(client.Ask(command).substr(0, 1), "1") << command;
        EXPECT_EQ(client.Reply(), "426 Data connection closed; transfer ended.\r\n") << command;
    }
}

TEST(Rehearsal, RestoresNeverSetUserOrGroup) {
    const Site site;
    fs::permissions(site.root / "home/f", fs::perms{04755});
    fs::permissions(site.root / "home", fs::perms{03755});
    const Client client = site.LogIn();
    client.Ask(CreateSaveFile);
    EXPECT_EQ(client.Ask(SaveHome), "250 3 objects saved.\r\n");
    EXPECT_EQ(client.Ask("RCMD RST DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('/home' *INCLUDE '/copy')) SUBTREE(*ALL)"),
              "250 3 objects restored.\r\n");
    EXPECT_EQ(fs::status(site.root / "copy/f").permissions(), fs::perms{0755});
    EXPECT_EQ(fs::status(site.root / "copy").permissions(), fs::perms{01755});
}

TEST(Rehearsal, ObjectsInUseAreNotSaved) {
    const string save_both = "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('/home/f') ('/home/note')) PRECHK(";
    struct Row {
        std::set<string> locked, busy;
        string replies; // to a save without the preliminary check, a restore to /home/note, and a save with the check
    };
    const string saved = "550 1 objects saved. 1 objects not saved..\r\n";
    const string checked = "550 Preliminary check failed for 1 objects. No objects saved..\r\n";
    for (const Row& row : {Row{{}, {"/home/note"}, saved + "250 1 objects restored.\r\n" + checked},
                           {{"/home/note"}, {}, saved + "550 0 objects restored. 1 not restored..\r\n" + checked}}) {
        rehearsal::Options options;
        options.locked = row.locked;
        options.busy = row.busy;
        const Site site(options);
        const Client client = site.LogIn();
        client.Ask(CreateSaveFile);
        string replies;
        for (const string& command :
             {save_both + "*NO)",
              string("RCMD RST DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('/home/f' *INCLUDE '/home/note'))"),
              save_both + "*YES)"}) {
            const string reply = client.Ask(command);
            const std::size_t second_line = reply.find("\n550 ");
            replies += second_line == reply.npos ? reply : reply.substr(second_line + 1);
        }
        EXPECT_EQ(replies, row.replies);
    }
    rehearsal::Options options;
    options.capitals = true;
    options.busy = {"/home/note"};
    const Site site(options);
    const Client client = site.LogIn();
    client.Ask(CreateSaveFile);
    EXPECT_TRUE(Holds(client.Ask(SaveHome), "550 2 OBJECTS SAVED. 1 OBJECTS NOT SAVED..\r\n"));
}

// Only the least time is tested: how long something takes beyond that is up to the machine.
TEST(Rehearsal, RatesAreLimits) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds least{100}; // for the 2000 bytes of /home/f
    rehearsal::Options options;
    options.save_rate = options.transfer_rate = 20'000;
    const Site site(options);
    const Client client = site.LogIn();
    client.Ask(CreateSaveFile);
    auto start = Clock::now();
    EXPECT_EQ(client.Ask(SaveHome), "250 3 objects saved.\r\n");
    EXPECT_GE(Clock::now() - start, least);
    for (const char* command : {"RETR /home/f", "STOR /home/g"}) {
        Descriptor data = client.OpenData();
        start = Clock::now();
        EXPECT_EQ(client.Ask(command).substr(0, 3), "150");
        if (*command == 'S') {
            EXPECT_TRUE(WriteAll(data.Get(), string(2000, 'g').data(), 2000));
            data.Reset();
        } else {
            EXPECT_EQ(Receive(data, 2000).size(), 2000U);
            EXPECT_GE(Clock::now() - start, least / 2); // the data itself is slow, not just the reply
        }
        EXPECT_EQ(client.Reply(), "250 File transfer completed successfully.\r\n");
        EXPECT_GE(Clock::now() - start, least) << command;
    }
}

TEST(Rehearsal, TheEndOfTheServerEndsASlowSave) {
    rehearsal::Options options;
    options.save_rate = 1; // hours
    Site site(options);
    const Client client = site.LogIn();
    client.Ask(CreateSaveFile);
    client.Send(SaveHome);
    while (site.server->Transcript().back() != SaveHome)
        ::usleep(1000);
    site.server.reset();
    EXPECT_EQ(client.Reply(), "");
}

TEST(Rehearsal, FaultsAreReadAndHappen) {
    EXPECT_EQ(rehearsal::ParseBytes("3M"), 3U << 20);
    EXPECT_EQ(rehearsal::ParseBytes("2g"), 2U << 30);
    const string good = "250 Data structure is File.\r\n";
    enum class After {
        Reply,
        End,
        More
    }; // what follows the bytes that are compared: nothing, the end, more of the same
    struct Row {
        string fault;
        string bytes; // received in reply to STRU F, or as the greeting
        After after;
        bool again = false; // it happens again in the next session
    };
    for (const Row& row :
         {Row{"replace STRU text=\"421 too \\\"busy\\\"\"", "421 too \"busy\"\r\n", After::Reply},
          {"pieces STRU cuts=1,20 pause=1", good, After::Reply},
          {"close STRU F bytes=4", "250 ", After::End},
          {"reset \"STRU F\" nth=0", "", After::End, true},
          {"close-after STRU nth=0", good, After::End, true},
          {"silent STRU pause=1", "", After::End},
          {"flood STRU", "250-Still running.\r\n250-Still running.\r\n", After::More},
          {"flood STRU nth=0 text=150", "150150150", After::More, true},
          {"flood STRU pause=1 text=\"\\\\\\r\\n\"", "\\\r\n\\\r\n", After::More},
          {"flood greeting nth=0", "220-Still running.\r\n220-Still running.\r\n", After::More, true}}) {
        rehearsal::Options options;
        options.faults = {rehearsal::ParseFault(row.fault)};
        options.record = false;
        const Site site(options);
        for (const bool again : {false, true}) {
            const bool greeting = Holds(row.fault, "greeting");
            const Client client(site.server->Port(), !greeting);
            if (!greeting)
                client.Send("STRU F");
            const bool happens = !again || row.again;
            EXPECT_EQ(Receive(client.control, (happens ? row.bytes : good).size()), happens ? row.bytes : good)
                << row.fault;
            if (happens && row.after != After::Reply) {
                EXPECT_EQ(Receive(client.control, 1).empty(), row.after == After::End) << row.fault;
            }
        }
        EXPECT_EQ(site.server->FaultCount(), row.again ? 2 : 1) << row.fault;
        EXPECT_TRUE(site.server->Exchanges().empty());
    }
}

TEST(Rehearsal, TransfersAreCutOnRequest) {
    rehearsal::Options options;
    for (const char* fault : {"data-close RETR bytes=1k", "data-refuse PASV nth=2", "data-reset RETR nth=2 bytes=0",
                              "close RETR nth=3 reply=1 bytes=3", "data-silent RETR nth=4"})
        options.faults.push_back(rehearsal::ParseFault(fault));
    const Site site(options);
    const Client client = site.LogIn();
    const Descriptor data = client.OpenData();
    EXPECT_EQ(client.Ask("RETR /home/f").substr(0, 3), "150");
    EXPECT_EQ(Receive(data), string(1024, 'f'));
    EXPECT_EQ(client.Reply(), "250 File transfer completed successfully.\r\n");
    EXPECT_FALSE(client.OpenData().IsOpen());
    const Descriptor reset = client.OpenData();
    client.Send("RETR /home/f");
    EXPECT_EQ(::recv(reset.Get(), string(1, ' ').data(), 1, 0), -1);
    client.Reply(), client.Reply();
    const Descriptor closed = client.OpenData();
    EXPECT_EQ(client.Ask("RETR /home/f").substr(0, 3), "150");
    EXPECT_EQ(Receive(closed).size(), 2000U);
    EXPECT_EQ(client.Reply(), "250");
    const Client last = site.LogIn();
    const Descriptor silent = last.OpenData();
    EXPECT_EQ(last.Ask("RETR /home/f").substr(0, 3), "150");
    std::array<char, 1> byte;
    EXPECT_EQ(::recv(last.control.Get(), byte.data(), 1, MSG_DONTWAIT), -1);
}

struct Command : Program {
    explicit Command(std::vector<string> given) {
        executable = REHEARSAL_UNDER_TEST;
        arguments = std::move(given);
    }
};

TEST(Rehearsal, WrongUsageAndFailures) {
    const TempDir empty;
    const Site site;
    const string root = empty.path.string(), port = std::to_string(site.server->Port());
    struct Row {
        std::vector<string> arguments;
        int status;
        string message; // its end
    };
    std::vector<Row> rows{
        {{}, 2, "--root is required"},
        {{"--root"}, 2, "--root: value missing"},
        {{"--root", root, "--colour", "red"}, 2, "unknown option: --colour"},
        {{"stray"}, 2, "unknown option: stray"},
        {{"--root", root, "--port", "65536"}, 2, "--port: not a port: 65536"},
        {{"--root", root, "--address", "localhost"}, 2, "--address: not an IPv4 address: localhost"},
        {{"--root", root, "--busy", "home"}, 2, "--busy: not an absolute path: home"},
        {{"--root", root, "--save-rate", "0"}, 2, "--save-rate: not a number of bytes: 0"},
        {{"--root", root, "--save-rate", "10T"}, 2, "--save-rate: not a number of bytes: 10T"},
        {{"--root", root, "--transfer-rate", "20000000000G"},
         2,
         "--transfer-rate: not a number of bytes: 20000000000G"},
        {{"--root", root + "/none"}, 1, "No such file or directory"},
        {{"--root", REHEARSAL_UNDER_TEST}, 1, "not a directory"},
        {{"--root", site.root.path.string(), "--sample"},
         1,
         "--sample needs an empty directory: " + site.root.path.string()},
        {{"--root", root, "--sample", "--port", port}, 1, ": Address already in use"},
    };
    const std::pair<const char*, const char*> faults[] = {
        {"", "unknown kind of fault: "},
        {"shut STRU", "unknown kind of fault: shut"},
        {"close nth=2", "command missing"},
        {"replace STRU", "replace needs text="},
        {"replace STRU text=421 busy", "unknown parameter: busy"},
        {"replace STRU text=\"421", "closing quote missing"},
        {"replace STRU text=\"421\"nth=2", "blank missing after closing quote"},
        {"replace STRU text=\"\\t\"", "unknown escape: \\t"},
        {"replace STRU text=\"\\", "unknown escape: \\"},
        {"close STRU text=421", "close has no text="},
        {"close STRU nth=-1", "not a number, or too large: -1"},
        {"close STRU reply=2", "not a number, or too large: 2"},
        {"pieces STRU cuts=3,1", "offsets must ascend"},
        {"data-refuse RETR", "data-refuse happens only to PASV"},
        {"data-close PASV", "data-close happens only to LIST RETR STOR"},
    };
    for (const auto& [fault, message] : faults)
        rows.push_back({{"--root", root, "--fault", fault}, 2, message});
    for (const Row& row : rows) {
        const Outcome outcome = Command(row.arguments).Run();
        EXPECT_EQ(outcome.status, row.status) << outcome.err;
        EXPECT_TRUE(Holds(outcome.err, row.message + "\n")) << outcome.err << row.message;
    }
    EXPECT_TRUE(fs::is_empty(empty.path)); // filled only when the port is bound
}

TEST(Rehearsal, ServesUntilTold) {
    const TempDir root, output;
    Command command({"--root", root.path.string(), "--sample", "--port", "0", "--user", "ann", "--password", "x:y",
                     "--locked", "/tmp", "--release", "V9R9M9", "--fault", "replace STRU text=\"599 no\""});
    command.outputs[STDOUT_FILENO] = output / "log";
    const pid_t process = command.Start();
    string line;
    for (int tries = 0; !line.ends_with('\n') && tries < 10000; ++tries) {
        ::usleep(1000);
        line = ReadFile(output / "log");
    }
    EXPECT_TRUE(fs::exists(root / "home/FRED/notes.txt"));
    ASSERT_TRUE(line.starts_with("vondral-rehearsal: listening on 127.0.0.1:")) << line;
    const Client client(std::stoul(line.substr(line.find(':', 20) + 1)), false);
    const std::pair<const char*, const char*> exchanges[] = {{"USER Ann", "331"}, {"PASS x:y", "230 ANN"},
                                                             {"SYST", "V9R9M9"},  {"STRU F", "599 no"},
                                                             {"STRU F", "250"},   {"CWD /home", "250"}};
    client.Reply();
    for (const auto& [sent, reply] : exchanges)
        EXPECT_TRUE(Holds(client.Ask(sent), reply)) << sent;
    ::kill(process, SIGTERM);
    EXPECT_EQ(command.Wait().status, 0);
    EXPECT_EQ(Command({"--help"}).Run().status, 0);
}

} // namespace
