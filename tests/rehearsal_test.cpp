// The rehearsal server where runs of the client do not reach it.

#include <csignal>
#include <fstream>

#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include "control_language.h"
#include "option_values.h"
#include "save_file.h"
#include "save_restore.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using std::string;
using testing::HasSubstr, testing::StartsWith;

// `count` bytes; fewer, and how it ended, when the connection ends before.
string Receive(const Descriptor& socket, std::size_t count = 1 << 20, int flags = MSG_WAITALL) {
    string bytes(count, '\0');
    const ssize_t received = ::recv(socket.Get(), bytes.data(), count, flags);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(received, 0)));
    return bytes.size() == count ? bytes : bytes + (received < 0 ? "<error>" : "<end>");
}

Descriptor Connect(unsigned long port) {
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{AF_INET, htons(static_cast<in_port_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    EXPECT_EQ(::connect(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return socket;
}

// Talks to the server without the client's modules, so that a test sees every byte of a reply.
struct Client {
    Descriptor control;

    const Client& Send(const string& command) const {
        const string line = command + "\r\n";
        EXPECT_TRUE(WriteAll(control.Get(), line.data(), line.size()));
        return *this;
    }
    // One whole reply, or what Receive returns when the connection ends.
    string Reply() const {
        string line;
        while (!line.ends_with('\n') && !line.ends_with('>'))
            line += Receive(control, 1);
        return line[3] == '-' ? line + Reply() : line;
    }
    string Ask(const string& command) const { return Send(command).Reply(); }
    Descriptor OpenData() const {
        const string reply = Ask("PASV");
        const std::size_t last = reply.rfind(','), before = reply.rfind(',', last - 1);
        return Connect(std::stoul(reply.substr(before + 1)) << 8 | std::stoul(reply.substr(last + 1)));
    }
    // Both replies, with the data received between them.
    string Transfer(const string& command, const string& sent = {}) const {
        Descriptor data = OpenData();
        string all = Ask(command);
        EXPECT_TRUE(WriteAll(data.Get(), sent.data(), sent.size()));
        all += sent.empty() ? Receive(data) : "";
        data.Reset();
        return all + Reply();
    }
};

struct Site {
    TempDir root;
    std::unique_ptr<rehearsal::Server> server;

    explicit Site(const std::vector<string>& faults = {}, rehearsal::Options options = {}) {
        for (const string& fault : faults)
            options.faults.push_back(rehearsal::ParseFault(fault));
        WriteFile(root / "home/f", string(2000, 'f'));
        WriteFile(root / "home/note", "note");
        options.root = root.path;
        server = std::make_unique<rehearsal::Server>(options);
    }
    Client LogIn() const {
        Client client{Connect(server->Port())};
        client.Reply();
        for (const char* command : {"USER fred", "PASS secret", "TYPE I", "RCMD CRTSAVF FILE(QTEMP/S)"})
            client.Ask(command);
        return client;
    }
};

TEST(Rehearsal, RefusesWhatARealServerWould) {
    rehearsal::Options options;
    options.busy = {"/home/note"};
    const Site site({}, options);
    fs::permissions(site.root / "home/f", fs::perms{07755});
    fs::create_directory(site.root / "Security Data");
    fs::create_symlink("/home", site.root / "home/abs");
    fs::create_symlink("../home/abs/.././home", site.root / "home/up");
    fs::create_symlink("../../home", site.root / "out");
    fs::create_symlink("Security Data", site.root / "secret");
    fs::create_symlink("home", site.root / "0");
    for (int links = 1; links <= 40; ++links)
        fs::create_symlink(std::to_string(links - 1), site.root / std::to_string(links));
    const Client client = site.LogIn();
    std::istringstream rows(R"(NOOP2|501 NOOP2 unsuccessful; specified subcommand not recognized.
USER bob|331 Enter password.
PASS secret|530 Log on attempt by user BOB rejected.
SYST|530 Not logged on.
USER fred|331 Enter password.
PASS Secret|530 Log on attempt by user FRED rejected.
PASS secret|230 FRED logged on.
TIME 9 9x|501 TIME
TIME 9 0|501 TIME
TIME 0|501 TIME
TIME 10000000|501 TIME
TIME 9999999 9999999|250 Inactivity time-out set to 9999999 seconds.
AUTH TLS|501 AUTH unsuccessful; parameter not valid.
PBSZ 0|501 PBSZ
PROT P|501 PROT
STRU R|501 STRU
CWD home|250 "/home" is current directory.
CWD f|550  Path does not exist: f
MKD a|257 "/home/a" directory created.
CWD /home/abs/a|250
CWD /home/up/a|250
CWD /out/a|250
CWD /secret|550
CWD /39|250
CWD /40|550  Path does not exist: /40
RCMD STRPDM|Command STRPDM in library *LIBL not found.
RCMD SAVLIB DEV(*SAVF) SAVF(QTEMP/S)|Parameter LIB required.
RCMD SAVLIB LIB(TOOLS) DEV(*SAVF) SAVF(QTEMP/S) COLOR(RED)|Keyword COLOR not valid
RCMD SAVLIB LIB(ELEVENCHARS) DEV(*SAVF) SAVF(QTEMP/S)|550 Value 'ELEVENCHARS' for parameter LIB not a valid name..
RCMD SAVLIB LIB(9NAME) DEV(*SAVF) SAVF(QTEMP/S)|Value '9NAME' for parameter LIB not a valid name.
RCMD SAVLIB LIB(A-B) DEV(*SAVF) SAVF(QTEMP/S)|Value 'A-B' for parameter LIB not a valid name.
RCMD SAVLIB LIB(TEN_CHARS.) DEV(*SAVF) SAVF(QTEMP/S)|550 Library TEN_CHARS. not found..
RCMD SAVLIB LIB(TOOLS) DEV(*SAVF) SAVF(QTEMP/T)|File T in library QTEMP not found.
RCMD SAVLIB LIB(TOOLS DEV(*SAVF) SAVF(QTEMP/S)|550 Matching parenthesis not found..
RCMD CRTSAVF FILE('QTEMP/S)|Matching apostrophe not found.
RCMD CRTSAVF (QTEMP/S)|Error found on CRTSAVF command.
RCMD CRTSAVF FILE(QTEMP/S) FILE(QTEMP/T)|Keyword FILE specified more than once.
RCMD CRTSAVF FILE(QTEMP/S QTEMP/T)|Value '' for parameter FILE not valid.
RCMD CRTSAVF FILE((QTEMP/T))|Value '' for parameter FILE not valid.
RCMD CRTSAVF FILE(T)|File T not created in library *LIBL.
RCMD CLRSAVF FILE(QTEMP/S)|250 File S in library QTEMP cleared.
RCMD SAVLIB LIB(TOOLS) DEV(*SAVF) SAVF(QTEMP/S) PRECHK(*MAYBE)|Value '*MAYBE' for parameter PRECHK not valid.
RCMD CRTSAVF FILE(QTEMP/S)|File S not created in library QTEMP.
RCMD CRTSAVF FILE(QTEMP/T)|250 File T created in library QTEMP.
RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('"/home/../home/f"')) SUBTREE(*ALL)|550 Object /home/../home/f not found..
RCMD RSTLIB SAVLIB(TOOLS) DEV(*SAVF) SAVF(QTEMP/S)|Save file S in QTEMP contains no data.
RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('/home/f') ('/home/note' *OMIT))|250 1 objects saved.
RCMD RST DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('/home/f' *INCLUDE '/home/note'))|250 1 objects restored.
RETR /home|550  Unable to find file /home
RETR /QSYS.LIB/QTEMP.LIB/T.FILE|550  Unable to find file /QSYS.LIB
STOR /home/g|425 Not able to open data connection.
MKD /../out|550
)");
    for (string command, reply; std::getline(rows, command, '|') && std::getline(rows, reply);)
        EXPECT_THAT(client.Ask(command), HasSubstr(reply)) << command;
    EXPECT_EQ(fs::status(site.root / "home/note").permissions(), fs::perms{01755});
    EXPECT_THAT(client.Ask("RCMD " + string(1000, 'X')), StartsWith("550-Error occurred on command X"));
    EXPECT_EQ(client.Ask("RCMD " + string(1001, 'X')),
              "501 RCMD unsuccessful; command longer than 1000 characters.\r\n");
    EXPECT_THAT(site.LogIn().Ask("RCMD CLRSAVF FILE(QTEMP/T)"), StartsWith("550")); // that of the other session
    const string endless(80'000, 'x');
    ::send(client.control.Get(), endless.data(), endless.size(), MSG_NOSIGNAL);
    EXPECT_THAT(client.Reply(), testing::AnyOf("<end>", "<error>"));
    const Client idle = site.LogIn();
    idle.Ask("TIME 1");
    EXPECT_EQ(idle.Reply(), "<end>");
}

// Control language commands without a session. SAV and RST use the save file S, and so do the others by default.
struct Machine {
    TempDir root;
    rehearsal::Options options;
    const rehearsal::Store store{root.path};
    const rehearsal::TemporaryLibrary library;

    Machine() { Run("CRTSAVF FILE(QTEMP/S)"); }
    string Run(string command) const {
        const string verb = command.substr(0, command.find(' '));
        if (verb == "SAV" || verb == "RST")
            command += " DEV('/QSYS.LIB/QTEMP.LIB/S.FILE')";
        else if (verb != "CRTSAVF")
            command += " DEV(*SAVF) SAVF(QTEMP/S)";
        std::uint64_t saved = 0;
        try {
            return rehearsal::RunCommand({options, store, library, saved}, command);
        } catch (const rehearsal::EscapeMessage& escape) {
            return escape.text;
        }
    }
    void SetTime(const string& path, std::time_t seconds) const {
        const timespec times[]{{seconds, 0}, {seconds, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, (root / path).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    }
    std::tuple<mode_t, std::time_t> Facts(const string& path) const {
        struct stat info {};
        EXPECT_EQ(::lstat((root / path).c_str(), &info), 0) << path;
        return {info.st_mode, info.st_mtime};
    }
};

TEST(Rehearsal, SavesAndRestoresWhatIsChosen) {
    Machine machine;
    machine.options.busy = {"/home/note", "/QDLS/BUSY"};
    machine.options.locked = {"/home/shut", "/QSYS.LIB/TOOLS.LIB/X.PGM", "/QSYS.LIB/SHUT.LIB",
                              "/QSYS.LIB/NEW.LIB/RUN.PGM"};
    machine.options.raw = {"/raw"};
    machine.options.release = "V10R1M0"; // later than V5R4M0
    for (const char* const file : {"home/f", "home/note", "home/old/kept", "home/shut/x", "QSYS.LIB/TOOLS.LIB/RUN.PGM",
                                   "QSYS.LIB/TOOLS.LIB/X.PGM", "QSYS.LIB/FILE.LIB", "QSYS.LIB/SHUT.LIB/X.PGM",
                                   "QDLS/BUSY", "QDLS/LETTER", "lib/QSYS.LIB/x", "Security Data", "raw"})
        WriteFile(machine.root / file, file);
    fs::create_symlink("f", machine.root / "home/link");
    ::mkfifo((machine.root / "pipe").c_str(), 0600);
    fs::resize_file(machine.root / "raw", 1 << 20);
    std::tm moment{5, 4, 3, 2, 0, 120, 0, 0, -1, 0, nullptr};
    const std::time_t year_2020 = std::mktime(&moment); // 2 January, 03:04:05
    for (const char* const old : {"home/old/kept", "home/old", "home/shut", "home/note"})
        machine.SetTime(old, year_2020);
    fs::permissions(machine.root / "home/old", fs::perms{0710});
    machine.SetTime("home/link", 1);
    std::istringstream rows(R"(SAV OBJ(('/home'))|5 objects saved. 2 objects not saved.
SAV OBJ(('/home')) CHGPERIOD('01/02/20' '03:04:05')|4 objects saved. 2 objects not saved.
SAV OBJ(('/home')) CHGPERIOD('01/02/20' '03:04:06')|2 objects saved. 1 objects not saved.
SAV OBJ(('/home')) CHGPERIOD('01/01/40' '00:00:00')|5 objects saved. 2 objects not saved.
SAV OBJ(('/home')) CHGPERIOD('12/31/39' '00:00:00')|No objects saved or restored.
SAV OBJ(('/home')) CHGPERIOD('12/31/39' '00:00:00') PRECHK(*YES)|Preliminary check failed for 1 objects. No objects saved.
RST OBJ(('/home'))|Save file S in QTEMP contains no data.
SAV OBJ(('/home')) CHGPERIOD('01/02/20')|Value '01/02/20 ' for parameter CHGPERIOD not valid.
SAV OBJ(('/'))|9 objects saved. 3 objects not saved.
SAV OBJ(('/home/f') ('/pipe')) PRECHK(*YES)|Preliminary check failed for 1 objects. No objects saved.
SAV OBJ(('/home/f') ('/pipe'))|1 objects saved. 1 objects not saved.
SAV OBJ(('/pipe'))|No objects saved or restored.
RST OBJ(('/pipe'))|Save file S in QTEMP contains no data.
SAV OBJ((''))|Object  not found.
SAV OBJ(('/QSYS.LIB'))|Object /QSYS.LIB cannot be saved or restored with SAV.
SAV OBJ(('"/a""b"'))|Object /a"b not found.
SAV OBJ(('"/a"b'))|Value '"/a"b' for parameter OBJ not valid.
SAV OBJ(())|Value '' for parameter OBJ not valid.
SAV OBJ((/a))|Value '/A' for parameter OBJ not valid.
SAV OBJ(('/a' *KEEP))|Value '*KEEP' for parameter OBJ not valid.
SAV OBJ(('/a' '*OMIT'))|Value '*OMIT' for parameter OBJ not valid.
SAV OBJ(('/a' *OMIT '/b'))|Value '/b' for parameter OBJ not valid.
SAV OBJ(('/a' *INCLUDE *KEEP))|Value '*KEEP' for parameter OBJ not valid.
SAV OBJ(('/a' *INCLUDE '/b' '/c'))|Value '/c' for parameter OBJ not valid.
SAVLIB LIB(TOOLS)|2 objects saved from TOOLS. 1 objects not saved.
SAVLIB LIB(FILE)|Library FILE not found.
SAVLIB LIB(SHUT)|No objects saved or restored for library SHUT.
SAVCFG|No objects saved or restored.
SAVDLO DLO(*ALL)|2 document library objects saved. 1 not saved.
RSTLIB SAVLIB(TOOLS)|Save file S in QTEMP not valid for RSTLIB.
RSTDLO DLO(*ALL)|2 document library objects restored.
SAV OBJ(('/raw'))|1 objects saved.
RST OBJ(('/raw' *INCLUDE '/new/raw'))|1 objects restored.
SAVLIB LIB(TOOLS)|2 objects saved from TOOLS. 1 objects not saved.
RSTLIB SAVLIB(OTHER)|No objects saved or restored for library OTHER.
RSTLIB SAVLIB(TOOLS) RSTLIB(NEW)|1 objects restored. 1 not restored to NEW.
RSTLIB SAVLIB(TOOLS) RSTLIB(NEWER)|2 objects restored from TOOLS to NEWER.
SAV OBJ(('/lib'))|3 objects saved.
RST OBJ(('/lib' *INCLUDE '/'))|1 objects restored. 2 not restored.
SAV OBJ(('/home/f') ('/home/link') ('/home/old'))|4 objects saved.
RST OBJ(('/none'))|No objects saved or restored.
RST OBJ(('/home/f' *INCLUDE '/QSYS.LIB/F'))|Object /QSYS.LIB/F cannot be saved or restored with RST.
RST OBJ(('/home/f' *INCLUDE *SAME))|1 objects restored.
RST OBJ(('/home/old' *INCLUDE '/home/f'))|0 objects restored. 2 not restored.
RST OBJ(('/home/f' *INCLUDE '/home/old'))|0 objects restored. 1 not restored.
RST OBJ(('/home' *INCLUDE '/copy'))|0 objects restored. 4 not restored.
RST OBJ(('/home' *INCLUDE '/copy')) CRTPRNDIR(*YES)|4 objects restored.
RST OBJ(('/' *INCLUDE '/all')) CRTPRNDIR(*YES)|4 objects restored.
RST OBJ(('/home' *INCLUDE '/'))|4 objects restored.
)");
    for (string command, text; std::getline(rows, command, '|') && std::getline(rows, text);)
        EXPECT_EQ(machine.Run(command), text) << command;
    for (const string copy : {"copy/", "all/home/", ""})
        for (const string object : {"f", "link", "old", "old/kept"})
            EXPECT_EQ(machine.Facts(copy + object), machine.Facts("home/" + object)) << copy + object;
    EXPECT_EQ(machine.Facts("home/old"), std::tuple(S_IFDIR | 0710, year_2020));
    EXPECT_EQ(DiffTrees(machine.root / "raw", machine.root / "new/raw"), ""); // was copied, not moved
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(machine.root.path))
        EXPECT_FALSE(entry.path().filename().string().starts_with(".rehearsal")) << entry.path();
    machine.options.release = "V5R3M0";
    EXPECT_EQ(machine.Run("RST OBJ(('/home/f')) CRTPRNDIR(*YES)"), "Keyword CRTPRNDIR not valid for this command.");
}

// What precedes the damage is restored, and the rest is counted.
TEST(Rehearsal, DamagedSaveFiles) {
    const Machine machine;
    WriteFile(machine.root / "home/f", "data");
    fs::create_symlink("f", machine.root / "home/link");
    ASSERT_EQ(machine.Run("SAV OBJ(('/home'))"), "3 objects saved.");
    const string bytes = ReadFile(machine.library.File("S"));
    std::size_t end = 16 + 1 + 8 + 2 + 3 + 8; // of the header
    const std::size_t record = 27 + 8;        // without path and data
    const std::size_t ends[] = {end, end += record + 5, end += record + 7 + 4, end += record + 10 + 1, end += record};
    const string damage = "Save file S in QTEMP is damaged.", rest = " objects restored. 1 not restored.";
    const string texts[] = {damage,     damage,     "1 objects restored. 2 not restored.",
                            "2" + rest, "3" + rest, "3 objects restored."};
    for (std::size_t at = 1; at < bytes.size(); ++at)
        for (const string& damaged :
             {bytes.substr(0, at), string(bytes).replace(at, 1, 1, static_cast<char>(bytes[at] ^ 1))}) {
            WriteFile(machine.library.File("S"), damaged);
            const auto whole = std::upper_bound(std::begin(ends), std::end(ends), at) - std::begin(ends);
            EXPECT_EQ(machine.Run("RST OBJ(('/home' *INCLUDE '/copy'))"), texts[whole]) << at << " " << damaged.size();
            EXPECT_TRUE(whole < 2 || machine.Facts("copy") == machine.Facts("home")) << at;
        }
    // Sound streams that no save writes.
    using Kind = rehearsal::SaveKind;
    for (const auto& [type, kind, path, command] :
         {std::tuple('D', Kind::Paths, "/QSYS.LIB/L.LIB", "RST OBJ(('/home'))"),
          {'D', Kind::Paths, "/home/", "RST OBJ(('/home'))"},
          {'X', Kind::Paths, "/home/x", "RST OBJ(('/home'))"},
          {'D', Kind::Library, "/home/x", "RSTLIB SAVLIB(L)"},
          {'D', Kind::Library, "/QSYS.LIB/L.LIB/./x", "RSTLIB SAVLIB(L)"}}) {
        const Descriptor file = machine.library.Replace("S");
        rehearsal::SaveFileWriter writer(file.Get(), kind, "L");
        writer.AddDirectory({static_cast<rehearsal::Entry::Type>(type), 0755, {}, 0, path});
        writer.Finish();
        EXPECT_EQ(machine.Run(command), damage) << path;
    }
}

TEST(Rehearsal, TransfersAndTheirFaults) {
    const Site site({"data-close RETR bytes=1k nth=3", "data-close STOR bytes=1 nth=3",
                     "replace STOR reply=1 nth=2 text=\"226 stored\""});
    const Client client = site.LogIn();
    const string bytes = "line\r\n" + string(550'000, '\0') + "end" + string(480'000, '\0');
    const string started = "150 Retrieving file /home/", completed = "250 File transfer completed successfully.\r\n";
    EXPECT_EQ(client.Transfer("STOR /home/new", string(1 << 20, 'x')), "150 Sending file to /home/new\r\n" + completed);
    EXPECT_EQ(client.Transfer("STOR /home/new", bytes), "150 Sending file to /home/new\r\n226 stored\r\n");
    EXPECT_TRUE(client.Transfer("RETR /home/new") == started + "new\r\n" + bytes + "<end>" + completed);
    EXPECT_THAT(client.Transfer("STOR /home/new", "two"), testing::EndsWith(completed));
    EXPECT_EQ(ReadFile(site.root / "home/new"), "t");
    fs::permissions(site.root / "home/note", fs::perms{0640});
    constexpr int recent = 180 * 24 * 60 * 60; // seconds
    for (const auto& [age, date] :
         {std::pair(recent - 60, "... .. ..:.."), {recent + 60, "... ..  20.."}, {-60, "... ..  20.."}}) {
        fs::last_write_time(site.root / "home/note", fs::file_time_type::clock::now() - std::chrono::seconds(age));
        EXPECT_THAT(client.Transfer("LIST /home/note"),
                    testing::MatchesRegex("125 List started.\r\n-rw-r-----   1 QPGMR    0              4 " +
                                          string(date) + " note\r\n<end>250 List completed.\r\n"));
    }
    for (int i = 0; i < 1200; ++i) // more than is sent at once
        WriteFile(site.root / "long" / (string(240, 'n') + std::to_string(i)), "");
    fs::create_symlink("none", site.root / "long/broken");
    fs::create_symlink("/home", site.root / "long/linked");
    const string rows = client.Transfer("LIST /long");
    EXPECT_THAT(rows, HasSubstr(" broken -> none\r\n"));
    EXPECT_THAT(rows, testing::ContainsRegex("\nd[^\n]* linked\r\n"));
    EXPECT_EQ(std::count(rows.begin(), rows.end(), '\n'), 1204);
    EXPECT_THAT(client.Transfer("LIST /long/linked"), HasSubstr(" note\r\n"));
    for (const char* command : {"RETR /home/f", "STOR /home/g", "LIST /home"}) {
        Descriptor data = client.OpenData();
        const linger reset{1, 0};
        ::setsockopt(data.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        data.Reset();
        client.Ask(command);
        EXPECT_EQ(client.Reply(), "426 Data connection closed; transfer ended.\r\n") << command;
    }
    EXPECT_EQ(client.Transfer("RETR /home/f"), started + "f\r\n" + string(1024, 'f') + "<end>" + completed);
    client.Ask("TYPE A");
    const string save_file = " /QSYS.LIB/QTEMP.LIB/TENLETTERS.SAVF",
                 image = "550  Save file transfer requires TYPE I: /QSYS.LIB";
    for (const auto& [command, reply] :
         {std::pair("RETR" + save_file, image),
          {"STOR" + save_file, image},
          {"STOR /QSYS.LIB/QTEMP.LIB/ELEVENCHARS.SAVF", "550  Unable to open file /QSYS.LIB"},
          {"STOR /none/x", "550  Unable to open file /none/x"}}) {
        const Descriptor data = client.OpenData();
        EXPECT_THAT(client.Ask(command), StartsWith(reply));
        EXPECT_EQ(Receive(data), "<end>") << command;
        for (int i = 0; i < 100; ++i) // what it is still sending is no broken connection
            EXPECT_EQ(::send(data.Get(), "x", 1, MSG_NOSIGNAL), 1);
    }
}

// At a byte a second each of these takes half an hour.
TEST(Rehearsal, RatesAreLimitsUntilTheServerEnds) {
    const string save = "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('/home')) SUBTREE(*ALL)";
    rehearsal::Options options;
    options.save_rate = options.transfer_rate = 1;
    Site site({}, options);
    const Client saving = site.LogIn(), receiving = site.LogIn(), other = site.LogIn();
    const Descriptor data = receiving.OpenData();
    receiving.Ask("RETR /home/f");
    saving.Send(save);
    for (int turn = 0; turn < 200 || site.server->Transcript(0).back() != save; ++turn)
        other.Ask("TYPE I"); // time for the others to end too early
    EXPECT_EQ(Receive(saving.control, 1, MSG_DONTWAIT), "<error>");
    EXPECT_EQ(Receive(receiving.control, 1, MSG_DONTWAIT), "<error>");
    options.root = site.root.path;
    options.port = site.server->Port();
    site.server.reset();
    EXPECT_EQ(saving.Reply(), "<end>");
    const rehearsal::Server next(options); // not kept out by connections that the first one closed
}

TEST(Rehearsal, FaultsOfReplies) {
    EXPECT_EQ(rehearsal::ParseFault("pieces STRU cuts=1,20").cuts, (std::vector<std::size_t>{1, 20}));
    const string good = "530 Not logged on.\r\n";
    // What is received in reply to STRU F, or as the greeting; in the next session too when nth is 0.
    using Row = std::pair<string, string>;
    for (const auto& [fault, bytes] : {Row{"replace STRU text=\"421 too \\\"busy\\\"\"", "421 too \"busy\"\r\n"},
                                       {"reset \"STRU F\" nth=0", "<error>"},
                                       {"close-after STRU nth=0", good + "<end>"},
                                       {"silent STRU pause=1", "<end>"},
                                       {"close STRU bytes=7", "530 Not<end>"},
                                       {"flood STRU", "530-Still running.\r\n530-Still running.\r\n530"},
                                       {"flood STRU pause=1 text=\"\\\\\\r\\n\"", "\\\r\n\\\r\n\\"},
                                       {"flood greeting nth=0 text=220", "2202202202"}}) {
        const Site site({fault});
        for (const string& wanted : {bytes, fault.find("nth=0") != fault.npos ? bytes : good}) {
            const Client client{Connect(site.server->Port())};
            if (!wanted.starts_with("220"))
                client.Reply();
            client.Send("STRU F");
            EXPECT_EQ(Receive(client.control, wanted.size()), wanted) << fault;
        }
    }
}

struct Command : Program {
    Command(const fs::path& directory, const string& line) {
        executable = "/bin/sh";
        arguments = {"-c", "cd '" + directory.string() + "' && exec '" REHEARSAL_UNDER_TEST "' " + line};
    }
};

TEST(Rehearsal, WrongUsageAndFailures) {
    const TempDir parent;
    fs::create_directory(parent / "empty");
    std::istringstream rows(R"(--root /dev/null|not a directory
--root .. --sample|--sample needs an empty directory: ..
--root . --sample --address 192.0.2.1|bind(192.0.2.1:21): Cannot assign requested address
--root|--root: value missing
|--root is required
--colour red|unknown option: --colour
--busy home|--busy: not an absolute path: home
--tls-max 1.1|--tls-max: not 1.2 or 1.3: 1.1
--tls-max 1.2 --root .|the options of TLS need --tls-cert
--tls-implicit --root .|the options of TLS need --tls-cert
--tls-require-resumption --root .|the options of TLS need --tls-cert
--tls-key x --root .|--tls-cert and --tls-key belong together
--port 65536|--port: not a port: 65536
--save-rate 17179869183G|--root is required
--save-rate 17179869184G|--save-rate: not a number of bytes: 17179869184G
--save-rate 10T|--save-rate: not a number of bytes: 10T
--save-rate ''|--save-rate: not a number of bytes: 
--fault 'shut STRU'|--fault: unknown kind of fault: shut
--fault 'close nth=2'|command missing
--fault 'replace STRU'|replace needs text=
--fault 'replace STRU text=421 busy'|unknown parameter: busy
--fault 'replace STRU text="421'|closing quote missing
--fault 'replace STRU text="\t"'|unknown escape: \t
--fault 'replace STRU text="421"0'|blank missing after closing quote
--fault 'close STRU text=421'|close has no text=
--fault 'close STRU reply=2'|not a number, or too large: 2
--fault 'pieces STRU cuts=3,1'|offsets must ascend
--fault 'data-close PASV'|data-close happens only to LIST RETR STOR
)");
    for (string arguments, message; std::getline(rows, arguments, '|') && std::getline(rows, message);) {
        const Outcome outcome = Command(parent / "empty", arguments).Run();
        EXPECT_EQ(outcome.status, arguments.starts_with("--root ") ? 1 : 2) << arguments;
        EXPECT_THAT(outcome.err, HasSubstr(message + "\n"));
    }
    EXPECT_THAT(Command(parent / "empty", "--help").Run().out,
                testing::MatchesRegex(".*\\(FRED\\).*\\(secret\\).*\\(V7R3M0\\).*"));
    EXPECT_TRUE(fs::is_empty(parent / "empty")); // filled only when the port is bound
}

TEST(Rehearsal, ServesUntilTold) {
    const TempDir dir;
    fs::create_directory(dir / "root");
    ASSERT_EQ(::mkfifo((dir / "log").c_str(), 0600), 0);
    Command command(
        dir.path, "--root root --sample --port 0 --user liz --password x:y --locked /tmp --busy /etc --release V9R9M9 "
                  "--capitals --passive-address 193.169.33.9 --fault 'replace STRU text=\"599 no\"'");
    command.environment["TMPDIR"] = dir.path;
    command.outputs[STDOUT_FILENO] = dir / "log";
    const pid_t process = command.Start();
    string line;
    std::getline(std::ifstream(dir / "log") >> std::ws, line);
    ASSERT_THAT(line, StartsWith("vondral-rehearsal: listening on 127.0.0.1:"));
    EXPECT_EQ(ReadFile(dir / "root/home/current notes"), "buy milk\n");
    EXPECT_GT(fs::file_size(dir / "root/home/WILMA/projects/large.bin"), 3'000'000);
    struct stat old_file {};
    EXPECT_EQ(::stat((dir / "root/home/FRED/it's mine.txt").c_str(), &old_file), 0);
    EXPECT_TRUE(old_file.st_mode == (S_IFREG | 0600) && old_file.st_mtime == 1'234'567'890);
    const Client client{Connect(std::stoul(line.substr(line.find(':', 20) + 1)))};
    string replies = client.Reply();
    for (const char* sent : {"USER Liz", "PASS x:y", "SYST", "PASV", "RCMD CRTSAVF FILE(QTEMP/S)",
                             "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('/tmp') ('/etc'))", "STRU F"})
        replies += client.Ask(sent);
    EXPECT_THAT(replies,
                testing::MatchesRegex("220-QTCP.*\r\n230 LIZ LOGGED ON.\r\n.*\"V9R9M9\".\r\n.*\\(193,169,33,9,.*\r\n"
                                      "550 NO OBJECTS SAVED OR RESTORED.*\r\n599 no\r\n"));
    ::kill(process, SIGTERM);
    EXPECT_EQ(command.Wait().status, 0);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path), {}), 2) << "QTEMP goes with its session";
}

} // namespace
