// The rehearsal server where the program's own runs do not reach it: refusals, privacy of QTEMP, paths that
// lead out.

#include <cstdlib>

#include "ftp.h"
#include "test_support.h"

namespace {

namespace fs = std::filesystem;

struct Talk {
    TempDir root;
    std::unique_ptr<rehearsal::Server> server;
    std::unique_ptr<FtpSession> session;

    explicit Talk(rehearsal::Options options = {}) {
        WriteFile(root / "QSYS.LIB/TOOLS.LIB/RUN.PGM", "run");
        WriteFile(root / "home/f", "f");
        options.root = root.path;
        server = std::make_unique<rehearsal::Server>(options);
        ::setenv("VONDRAL_TEST_PORT", std::to_string(server->Port()).c_str(), 1);
        session = LogIn();
    }
    static std::unique_ptr<FtpSession> LogIn() {
        std::unique_ptr<FtpSession> session = NewSession("127.0.0.1", "ftp");
        EXPECT_EQ(Login(session.get(), "FRED", "secret"), 0);
        return session;
    }
    // The reply to a command: the refusal, or "" for a good one.
    static std::string Ask(FtpSession& session, const std::string& command) {
        std::array<char, 256> reply{};
        const int result = SendCommand(session.control.get(), command.c_str(), reply);
        return result == 0 ? "" : reply.data();
    }
    std::string Ask(const std::string& command) { return Ask(*session, command); }
};

TEST(Rehearsal, RefusesWhatARealServerWould) {
    Talk talk;
    ASSERT_EQ(talk.Ask("RCMD CRTSAVF FILE(QTEMP/S)"), "");
    struct Row {
        const char* command;
        const char* refusal; // part of it
    };
    for (const Row& row :
         {Row{"NOOP2", "501 NOOP2 unsuccessful; specified subcommand not recognized."},
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
          {"MKD /../out", "550"}}) {
        const std::string reply = talk.Ask(row.command);
        EXPECT_TRUE(Holds(reply, row.refusal)) << row.command << ": " << reply;
    }
    const std::string too_long = "RCMD SAVLIB LIB(" + std::string(1000, 'X') + ")";
    EXPECT_EQ(talk.Ask(too_long).substr(0, 3), "501");
    EXPECT_FALSE(fs::exists(talk.root.path.parent_path() / "out"));
}

TEST(Rehearsal, QtempBelongsToOneSessionAndGoesWithIt) {
    Talk talk;
    std::unique_ptr<FtpSession> other = Talk::LogIn();
    EXPECT_EQ(talk.Ask("RCMD CRTSAVF FILE(QTEMP/S)"), "");
    EXPECT_NE(Talk::Ask(*other, "RCMD CLRSAVF FILE(QTEMP/S)"), "");
    EXPECT_EQ(Quit(std::move(talk.session)), 0);
    talk.session = Talk::LogIn();
    EXPECT_NE(talk.Ask("RCMD CLRSAVF FILE(QTEMP/S)"), "");
}

TEST(Rehearsal, CapitalsAreUnderstood) {
    rehearsal::Options options;
    options.capitals = true;
    options.locked = {"/home/locked"};
    Talk talk(options);
    WriteFile(talk.root / "home/locked", "x");
    ASSERT_EQ(talk.Ask("RCMD CRTSAVF FILE(QTEMP/S)"), "");
    const std::string reply =
        talk.Ask("RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('\"/home\"')) SUBTREE(*ALL) PRECHK(*NO)");
    EXPECT_EQ(CountNotSaved(reply.c_str()), "1") << reply;
    EXPECT_TRUE(Holds(reply, "OBJECTS SAVED")) << reply;
}

} // namespace
