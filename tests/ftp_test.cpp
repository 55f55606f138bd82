#include "ftp.h"

#include <cstdlib>

#include "test_support.h"

namespace {

using testing::AllOf, testing::EndsWith, testing::HasSubstr;

TEST(Commands, QuotesAreDoubledUpToTheLimit) {
    EXPECT_EQ(QuoteForCL("\"a\""), "\"\"a\"\"");
    EXPECT_EQ(QuoteForCL(std::string(5000, 'x')).size(), 4093U);
    EXPECT_EQ(QuoteForCL(std::string(4092, 'x') + "''").size(), 4094U);
}

std::string SaveCommand(const std::string& path, const SaveOptions& options = {}) {
    ObjectFile object;
    object.name = path;
    return SaveMemberFor(path).build(object, 2, options).value_or("refused");
}

// The commands of plain saves are in the whole conversation of a backup.
TEST(Commands, SaveCommandsWithOptions) {
    EXPECT_EQ(SaveCommand("/home/o'brien/"), "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/SAV2.FILE') "
                                             "OBJ(('\"/home/o''brien\"')) SUBTREE(*ALL) PRECHK(*YES) "
                                             "UPDHST(*NO) SAVACT(*YES)");
    const SaveOptions set{false, "*NOMAX", "01/02/09", "03:04:05"};
    EXPECT_EQ(SaveCommand("/Security Data", set), "RCMD SAVSECDTA DEV(*SAVF) SAVF(QTEMP/SAV2) PRECHK(*NO)");
    EXPECT_EQ(SaveCommand("/System Configuration", set), "RCMD SAVCFG DEV(*SAVF) SAVF(QTEMP/SAV2) PRECHK(*NO)");
    EXPECT_TRUE(SaveCommand("/", set).ends_with("OBJ(('\"/\"')) SUBTREE(*ALL) PRECHK(*NO) UPDHST(*NO) SAVACT(*YES) "
                                                "CHGPERIOD('01/02/09' '03:04:05')"));
    EXPECT_TRUE(SaveCommand("/QSYS.LIB/L.LIB", set).ends_with("SAVACTWAIT(*NOMAX) ACCPTH(*YES)"));
    for (const char* const library :
         {"X.FILE", ".LIB", "*ALLUSR.LIB", "A B.LIB", "A).LIB", "A(.LIB", "A'.LIB", "A\t.LIB"})
        EXPECT_EQ(SaveCommand(std::string("/QSYS.LIB/") + library), "refused") << library;
}

TEST(Commands, PartialSavesAreCounted) {
    for (const auto& [reply, count] : {std::pair("550 12 objects saved. 3 objects not saved..", "3"),
                                       {"550 12 OBJECTS SAVED. 3 OBJECTS NOT SAVED..", "3"},
                                       {"250 12 objects saved. 3 objects not saved..", "none"},
                                       {"550 12 objects saved. 3 objects not saved.", "none"},
                                       {"550 3 objects not saved.. 12 objects saved. ", "none"}})
        EXPECT_EQ(CountNotSaved(reply).value_or("none"), count) << reply;
}

TEST(Commands, RestoreRepliesAreJudgedByFirstLetters) {
    for (const auto& [reply, judgement] : {std::pair("550 CPF3773 5 objects restored. 2 not restored", 5),
                                           {"550 5 OBJECTS RESTORED", 5},
                                           {"550 job log: 5 objects restored", -1}, // an 'o' stands before
                                           {"550 0 objects restored", 0},
                                           {"550 1 objects restored", 1},
                                           {"550 5objects restored", 0},
                                           {"550 010 objects restored", 8},
                                           {"5 objects restored", 0}, // looks like the reply code
                                           {"objects restored", 0},
                                           {"550 2 libraries restored", 2},
                                           {"250 Not all objects were restored", 1},
                                           {"550 Save file SAVTEMP in QTEMP contains no data", 1},
                                           {"550 Save file SAVTEMP in QTEMP is in use", -1},
                                           {"550 is a Save file that contains no data", -1},
                                           {"550 File X in library Y not found.", -1},
                                           {"", -1}})
        EXPECT_EQ(ClassifyRestoreReply(reply), judgement) << reply;
}

TEST(Commands, RestoreCommandsOfTheFileSystem) {
    const StringPair moved{"/home/it's", "/tmp/new"};
    const StringList omissions{{"/home/it's/a", std::nullopt}, {"/home/it's/b", "ignored"}};
    const RestoreMember& rst = RestoreMemberFor("/home");
    EXPECT_EQ(rst.build(moved, omissions, Release::V5R3M0),
              "RCMD RST DEV('/QSYS.LIB/QTEMP.LIB/SAVTEMP.FILE') OBJ(('\"/home/it''s\"' *INCLUDE '\"/tmp/new\"') "
              "('\"/home/it''s/a\"' *OMIT) ('\"/home/it''s/b\"' *OMIT)) SUBTREE(*ALL) ALWOBJDIF(*ALL)");
    EXPECT_EQ(rst.build({"/home", std::nullopt}, {}, Release::V5R4M0),
              "RCMD RST DEV('/QSYS.LIB/QTEMP.LIB/SAVTEMP.FILE') OBJ(('\"/home\"')) SUBTREE(*ALL) ALWOBJDIF(*ALL) "
              "CRTPRNDIR(*Yes)");
}

// A session with a rehearsal server in this process.
struct Session {
    TempDir root;
    std::unique_ptr<rehearsal::Server> server;
    std::unique_ptr<FtpSession> session;

    explicit Session(const std::vector<rehearsal::Fault>& faults = {}, const std::string& release = "V7R3M0") {
        std::filesystem::create_directory(root / "home");
        rehearsal::Options options;
        options.root = root.path;
        options.release = release;
        options.faults = faults;
        server = std::make_unique<rehearsal::Server>(options);
        ::setenv("VONDRAL_TEST_PORT", std::to_string(server->Port()).c_str(), 1);
        ::setenv("VONDRAL_TEST_MINUTE", "60000", 1);
        session = NewSession("127.0.0.1", "ftp");
    }
    int LogIn() { return Login(session.get(), "fred", "secret"); }
    int ListHome() {
        const ObjectTree home = NewDirectoryNode(nullptr, "/home", 0, 0, {});
        return List("/home", home.get());
    }
    int List(const char* path, ObjectNode* directory = nullptr) {
        const DataCallback ignore = [](void*, char*, int*) { return 0; };
        return ListDirectory(session.get(), path, ignore, nullptr, directory);
    }
};

TEST(Login, RecordsTheReleaseAndForgivesTrouble) {
    using Row = std::tuple<std::vector<rehearsal::Fault>, const char*, Release, const char*>;
    for (const auto& [faults, release, expected, messages] :
         {Row{{}, "V5R3M0", Release::V5R3M0, ""},
          {{}, "V5R4M0", Release::V5R4M0, ""},
          {{}, "V5R4M0X", Release::Other, ""},
          {{Replace("SYST", "500 what")}, "V5R4M0", Release::V5R3M0, "vondral[ftp.cpp]: SYST command failed\n"},
          {{Replace("SYST", "215 UNIX")}, "V5R4M0", Release::V5R3M0, "vondral[ftp.cpp]: invalid SYST reply\n"},
          {{Replace("SYST", "215 \"V5R4M0")}, "V5R4M0", Release::V5R3M0, "vondral[ftp.cpp]: invalid SYST reply\n"},
          {{Replace("TIME", "501 no")}, "V5R4M0", Release::V5R4M0, "vondral[ftp.cpp]: TIME command failed\n"}}) {
        Session session(faults, release);
        session.session->release = Release::V5R3M0; // of an earlier login
        Capture capture;
        EXPECT_EQ(session.LogIn(), 0);
        EXPECT_EQ(capture.Take(), messages);
        EXPECT_EQ(session.session->release, expected) << messages << release;
    }
}

TEST(Login, LimitsOfNamesAndPasswords) {
    for (const std::size_t length : {249U, 250U, 251U}) {
        Session session;
        Capture capture;
        EXPECT_EQ(Login(session.session.get(), std::string(length, 'u').c_str(), "x"), -1);
        const std::vector<std::string> sent = session.server->Transcript();
        if (length == 251) {
            EXPECT_EQ(capture.Take(), "vondral[ftp.cpp]: user too long\n");
            EXPECT_TRUE(sent.empty());
        } else {
            EXPECT_TRUE(capture.Take().starts_with("vondral[ftp.cpp]: PASS command failed\n  530"));
            EXPECT_EQ(sent.front(), "USER " + std::string(249, 'u'));
        }
    }
}

TEST(Login, RefusalsAreQuotedUpTo127Characters) {
    Session session({Replace("PASS", "530 " + std::string(200, 'x'))});
    Capture capture;
    EXPECT_EQ(session.LogIn(), -1);
    EXPECT_EQ(capture.Take(), "vondral[ftp.cpp]: PASS command failed\n  530 " + std::string(123, 'x') + "\n");
}

TEST(Login, ABrokenConnectionHasNoRecoveryHere) {
    Session session({Close("CWD")});
    Capture capture;
    EXPECT_EQ(session.LogIn(), -1);
    EXPECT_EQ(Quit(std::move(session.session)), -1);
    EXPECT_THAT(capture.Take(), AllOf(HasSubstr("vondral[ftp.cpp]: jump buffer invalid\n"
                                                "vondral[ftp.cpp]: CWD / command failed\n"),
                                      HasSubstr("vondral[ftp.cpp]: QUIT command failed\n")));
}

TEST(Save, FailuresSayWhy) {
    const std::string quotes(2100, '\'');
    using Row = std::tuple<std::string, std::vector<rehearsal::Fault>, const char*>;
    for (const auto& [path, faults, messages] :
         {Row{"/" + quotes, {}, "vondral[ftp.cpp]: SAV command too long\n"},
          {"/QSYS.LIB/A B.LIB", {}, "vondral[ftp.cpp]: bad library name\n"},
          // a reply that never gets its end leaves nothing of the one before
          {"/home",
           {Replace("RCMD CLRSAVF", "550 first"), Replace("RCMD SAV", std::string(5000, 'x'))},
           "vondral[ftp.cpp]: SAV command failed\n  \n"}}) {
        Session session(faults);
        ASSERT_EQ(session.LogIn(), 0);
        ArchiveFile archive;
        ArchiveWriter writer{archive};
        ObjectFile object;
        object.name = path;
        SaveTimes times;
        Capture capture;
        EXPECT_EQ(SaveObject(SaveMemberFor(path), session.session.get(), {object, 1, {}, nullptr}, times,
                             {writer, nullptr, nullptr, nullptr}),
                  -1);
        EXPECT_EQ(capture.Take(), messages);
    }
}

TEST(Parents, EveryDirectoryAboveAndNothingElse) {
    Session session;
    ASSERT_EQ(session.LogIn(), 0);
    EXPECT_EQ(MakeParentDirectories(session.session.get(), "/a/b/c.txt"), 0);
    EXPECT_EQ(MakeParentDirectories(session.session.get(), "/file"), 0);
    EXPECT_EQ(MakeParentDirectories(session.session.get(), "relative/x"), 1);
    const std::vector<std::string> sent = session.server->Transcript();
    EXPECT_EQ(std::vector<std::string>(sent.begin() + 5, sent.end()), (std::vector<std::string>{"MKD /a", "MKD /a/b"}));
}

TEST(Listing, SetsUpOnceAndRecoversUpToTheTransfer) {
    const std::vector<std::string> login{"USER fred", "PASS ****", "CWD /", "SYST", "TIME 86400 86400"};
    const std::vector<std::string> set_up{"STRU F", "MODE S", "TYPE A", "SITE LISTFMT 1", "SITE NAMEFMT 1"};
    const std::vector<std::string> list{"PASV", "LIST /home"};
    using Row = std::tuple<std::vector<rehearsal::Fault>, int, std::vector<std::vector<std::string>>>;
    for (const auto& [faults, result, after_login] :
         {Row{{}, 0, {set_up, list, list}}, // the second listing needs no set-up
          {{Close("STRU")}, 0, {{"STRU F"}, login, set_up, list, list}},
          {{OfKind(rehearsal::Fault::Kind::Flood, "STRU")}, 0, {{"STRU F"}, login, set_up, list, list}},
          {{Close("SITE NAMEFMT"), Close("TYPE", 2)},
           0,
           {set_up, login, {"STRU F", "MODE S", "TYPE A"}, login, set_up, list, list}},
          {{Close("PASV")}, -1, {set_up, {"PASV"}, login, set_up, list}},
          {{Close("LIST")}, -1, {set_up, list, login, set_up, list}}}) {
        Session session(faults);
        Capture capture;
        ASSERT_EQ(session.LogIn(), 0);
        EXPECT_EQ(session.ListHome(), result);
        EXPECT_EQ(session.ListHome(), 0);
        capture.Take();
        std::vector<std::string> expected = login;
        for (const std::vector<std::string>& part : after_login)
            expected.insert(expected.end(), part.begin(), part.end());
        EXPECT_EQ(session.server->Transcript(), expected);
    }
}

// A server that drops the session at the same command each time: twenty recoveries at once, then pauses that double,
// and none after eight minutes.
TEST(Listing, RecoveryHasAnEnd) {
    Session session({Close("STRU", 0)});
    ::setenv("VONDRAL_TEST_MINUTE", "300", 1);
    ASSERT_EQ(session.LogIn(), 0);
    Capture capture;
    EXPECT_EQ(session.ListHome(), -1);
    EXPECT_THAT(capture.Take(), EndsWith("control connection closed\nvondral[ftp.cpp]: can't recover checkpoint\n"));
    EXPECT_GT(session.server->SessionCount(), 1 + 20 + 5);
    EXPECT_LT(session.server->SessionCount(), 1 + 20 + 14); // pauses of 1, 2, 4, 8, 16, 32 and seven times 60 seconds
    ::setenv("VONDRAL_TEST_MINUTE", "60000", 1);
}

TEST(Listing, ALineThatWouldLoseItsEndIsNotSent) {
    for (const std::size_t length : {4087U, 4088U}) {
        Session session;
        ASSERT_EQ(session.LogIn(), 0);
        const std::string path(length, 'x');
        Capture capture;
        EXPECT_EQ(session.List(path.c_str()), -1);
        const bool is_sent = length == 4087;
        EXPECT_THAT(capture.Take(), HasSubstr(is_sent ? "LIST command failed\n" : "LIST command too long\n"));
        EXPECT_EQ(session.server->Transcript().back() == "LIST " + path, is_sent);
    }
}

TEST(Listing, AFailedRecoveryCostsOneOperationAndArmsNothing) {
    for (const rehearsal::Fault& refusal : {Replace("PASS", "530 no", 2), Close("PASS", 2)}) {
        Session session({Close("MODE"), refusal});
        ASSERT_EQ(session.LogIn(), 0);
        Capture capture;
        EXPECT_EQ(session.ListHome(), -1);
        EXPECT_THAT(capture.Take(),
                    EndsWith("vondral[ftp.cpp]: login failed\nvondral[ftp.cpp]: can't recover checkpoint\n"));
        EXPECT_EQ(session.session->checkpoint.flags, 0U);
        Capture again;
        EXPECT_EQ(session.ListHome(), 0); // the next operation connects anew
        EXPECT_THAT(again.Take(), HasSubstr("recovering checkpoint\n"));
    }
}

TEST(Listing, RefusalsAreFatalOrKeepTheDirectoryAsOneObject) {
    const ObjectTree root = NewDirectoryNode(nullptr, "/home/x*", 0, 0, {});
    ObjectNode& dir = AppendDirectory(*root, "/home/x1", 040755, 10, {});
    const char* const refusal = "550 CPF3CAA List is too long";
    Capture capture;
    EXPECT_EQ(ListFailed("550 no", &dir), -1);
    EXPECT_EQ(capture.Take(), "vondral[ftp.cpp]: LIST command failed\n  550 no\n");
    EXPECT_EQ(ListFailed(refusal, &dir), 0);
    ASSERT_NE(root->first_file, nullptr);
    EXPECT_EQ(root->first_file->name, "/home/x1");
    EXPECT_EQ(root->first_file->size, 10U);
    EXPECT_TRUE(root->partial && dir.released);
    EXPECT_EQ(ListFailed(refusal, root.get()), 0);
    EXPECT_EQ(ListFailed(refusal, root.get()), 0); // adds nothing again
    EXPECT_EQ(root->last_file->name, "/home/x*");
    EXPECT_EQ(root->count, 2U);
    ObjectNode& libraries = AppendDirectory(*root, "/QSYS.LIB", 040755, 0, {});
    Capture again;
    EXPECT_EQ(ListFailed(refusal, &libraries), -1);
    EXPECT_EQ(again.Take(), std::string("vondral[ftp.cpp]: /QSYS.LIB is exempt\n"
                                        "vondral[ftp.cpp]: LIST command failed\n  ") +
                                refusal + "\n");
}

} // namespace
