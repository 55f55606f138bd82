#include "ftp.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <mutex>

#include "recovery_pace.h"
#include "restore_plan.h"

namespace {

constexpr std::size_t ReplyTextCapacity = 128; // of the reply texts that messages quote, with their terminator
using ReplyText = std::array<char, ReplyTextCapacity>;

bool IsSession(const FtpSession* session) {
    return session != nullptr && session->tag == SessionTag;
}

int Send(FtpSession& session, const std::string& command) {
    return SendCommand(session.control.get(), command.c_str());
}

// Sends with a reply buffer, which is cleared first and ends in a terminator whatever the reply.
int SendForReply(FtpSession& session, const std::string& command, ReplyText& reply, const Transfer& transfer = {}) {
    reply.fill('\0');
    const int result = SendCommand(session.control.get(), command.c_str(), reply, transfer);
    reply.back() = '\0';
    return result;
}

// Logs in the caller's name that a command failed, and returns -1.
int ReportCommand(const char* verb, SourceLocation place = SourceLocation::Here()) {
    LogFailureAt(place, "%s command failed\n", verb);
    return -1;
}

// The same with the server's reply on a second line.
int ReportCommand(const char* verb, const char* reply, SourceLocation place = SourceLocation::Here()) {
    LogFailureAt(place, "%s command failed\n  %s\n", verb, MaskControls(reply).c_str());
    return -1;
}

int ReportTooLong(const char* what, SourceLocation place = SourceLocation::Here()) {
    LogFailureAt(place, "%s too long\n", what);
    return -1;
}

// Some commands have a limit of their own: a longer one is refused, one of exactly `limit` characters is sent without
// its last.
bool FitCommand(std::string& command, std::size_t limit) {
    if (command.size() > limit)
        return false;
    if (command.size() == limit)
        command.pop_back();
    return true;
}

// Takes control from a broken connection back to the protected operation that marked the checkpoint.
struct ConnectionBroken {
    const void* operation;
};

// Takes control to the session's checkpoint, or returns after logging that none is armed.
void AbortToCheckpoint(const FtpSession& session) {
    if (!IsSession(&session)) {
        LogFailure("not a session\n");
        return;
    }
    if ((session.checkpoint.flags & CHECKPOINT_ARMED) == 0) {
        LogFailure("jump buffer invalid\n");
        return;
    }
    throw ConnectionBroken{session.checkpoint.operation};
}

} // namespace

// Opening, login, closing

std::unique_ptr<FtpSession> NewSession(const char* host, const char* service, const TransportOptions& options) {
    auto session = NewRecord<FtpSession>();
    if (session == nullptr) {
        LogFailure("malloc(%d) failed\n", static_cast<int>(sizeof(FtpSession)));
        return nullptr;
    }
    session->control =
        OpenConnections(host, service, options, [broken = session.get()] { AbortToCheckpoint(*broken); });
    if (session->control == nullptr)
        return nullptr;
    session->tag = SessionTag;
    return session;
}

namespace {

// One half of the credentials: the command that carries it, and its name in messages.
struct LoginStep {
    const char* verb;
    const char* name;
};
constexpr LoginStep UserStep{"USER", "user"};
constexpr LoginStep PasswordStep{"PASS", "password"};

constexpr std::size_t LongestLogin = 255; // characters of a USER or PASS command

int SendLogin(FtpSession& session, const LoginStep& step, const std::string& value) {
    std::string command = std::string(step.verb) + " " + value;
    if (!FitCommand(command, LongestLogin))
        return ReportTooLong(step.name);
    ReplyText reply;
    if (SendForReply(session, command, reply) != 0)
        return ReportCommand(step.verb, reply.data());
    return 0;
}

// The value to log in with: the caller's, else the stored one.
std::optional<std::string> ChooseLogin(const char* given, const std::optional<std::string>& stored, const char* name,
                                       SourceLocation place = SourceLocation::Here()) {
    if (given != nullptr)
        return given;
    if (!stored)
        LogFailureAt(place, "we don't have a %s\n", name);
    return stored;
}

// Reads the release from a reply such as: 215  OS/400 is the remote operating system. The TCP/IP version is "V5R4M0".
// Without a text in quotes the release known so far stays.
void NoteRelease(FtpSession& session, std::string_view reply) {
    const std::size_t from = reply.find('"');
    const std::size_t to = from == reply.npos ? reply.npos : reply.find('"', from + 1);
    if (to == reply.npos) {
        LogFailure("invalid SYST reply\n");
        return;
    }
    const std::string_view release = reply.substr(from + 1, to - from - 1);
    session.release = release == "V5R3M0" ? Release::V5R3M0 : release == "V5R4M0" ? Release::V5R4M0 : Release::Other;
}

} // namespace

int Login(FtpSession* session, const char* user, const char* password) {
    if (!IsSession(session))
        return -1;
    const std::optional<std::string> name = ChooseLogin(user, session->user, "user name");
    if (!name || SendLogin(*session, UserStep, *name) != 0)
        return -1;
    const std::optional<std::string> secret = ChooseLogin(password, session->password, "password");
    if (!secret || SendLogin(*session, PasswordStep, *secret) != 0)
        return -1;
    if (Send(*session, "CWD /") != 0)
        return ReportCommand("CWD /");
    session->user = name;
    session->password = secret;
    ReplyText reply;
    if (SendForReply(*session, "SYST", reply) != 0)
        ReportCommand("SYST");
    else
        NoteRelease(*session, reply.data());
    if (Send(*session, "TIME 86400 86400") != 0)
        ReportCommand("TIME");
    return 0;
}

int Quit(std::unique_ptr<FtpSession> session) {
    if (!IsSession(session.get()))
        return -1;
    if (Send(*session, "QUIT") != 0)
        ReportCommand("QUIT");
    return CloseConnection(std::move(session->control));
}

// Recovery

namespace {

// Connects and logs in again after a failure, with nothing armed meanwhile, and forgets the transfer parameters.
int RecoverCheckpoint(FtpSession& session) {
    LogFailure("recovering checkpoint\n");
    session.checkpoint = {};
    session.control->data->socket.Reset();
    if (ConnectControl(session.control.get()) != 0) {
        LogFailure("can't reopen control connection\n");
        return -1;
    }
    if (Login(&session, nullptr, nullptr) != 0) {
        LogFailure("login failed\n");
        session.control->socket.Reset(); // the next operation finds it gone, and tries again
        return -1;
    }
    session.mode = session.structure = session.type = session.name_format = session.list_format = 0;
    return 0;
}

using ProtectedOperation = std::function<int(const Checkpoint& outer)>;

// Runs an operation of several commands under a checkpoint of its own, and again after each recovery while
// CHECKPOINT_RETRY is set, as often as the pace allows. The operation receives the checkpoint found on entry and may
// put it back early. It is back in any case when this returns, except after a failed recovery: then nothing is armed.
int WithRecovery(FtpSession& session, const ProtectedOperation& operation) {
    const Checkpoint outer = session.checkpoint;
    RecoveryPace pace;
    for (;;) {
        session.checkpoint = {&outer, CHECKPOINT_ARMED | CHECKPOINT_RETRY};
        try {
            const int result = operation(outer);
            session.checkpoint = outer;
            return result;
        } catch (const ConnectionBroken& broken) {
            if (broken.operation != &outer)
                throw;
        }
        const bool retry = (session.checkpoint.flags & CHECKPOINT_RETRY) != 0;
        if (!AwaitRecovery(pace, session.control->options.timeout) || RecoverCheckpoint(session) != 0) {
            session.checkpoint = {};
            LogFailure("can't recover checkpoint\n");
            return -1;
        }
        if (!retry) {
            session.checkpoint = outer;
            return -1;
        }
    }
}

// From here on the operation that is under way is not repeated.
void PassPointOfNoReturn(FtpSession& session) {
    session.checkpoint.flags &= ~CHECKPOINT_RETRY;
}

} // namespace

// Transfer parameters

namespace {

struct TransferParameter {
    char FtpSession::*field;
    char wanted;
    const char* command;
    const char* name; // in messages
};

constexpr TransferParameter StruFile{&FtpSession::structure, 'F', "STRU F", "STRU"};
constexpr TransferParameter ModeStream{&FtpSession::mode, 'S', "MODE S", "MODE"};
constexpr TransferParameter TypeAscii{&FtpSession::type, 'A', "TYPE A", "TYPE"};
constexpr TransferParameter TypeImage{&FtpSession::type, 'I', "TYPE I", "TYPE"};
constexpr TransferParameter ListFormatUnix{&FtpSession::list_format, '1', "SITE LISTFMT 1", "LISTFMT"};
constexpr TransferParameter NameFormatPath{&FtpSession::name_format, '1', "SITE NAMEFMT 1", "NAMEFMT"};

constexpr std::array<TransferParameter, 5> ListingParameters{StruFile, ModeStream, TypeAscii, ListFormatUnix,
                                                             NameFormatPath};
// The last one only for commands that name a path.
constexpr std::array<TransferParameter, 4> SaveFileParameters{StruFile, ModeStream, TypeImage, NameFormatPath};

// Sends what the session has not yet set on the server.
int SetParameters(FtpSession& session, std::span<const TransferParameter> parameters) {
    for (const TransferParameter& parameter : parameters) {
        if (session.*parameter.field == parameter.wanted)
            continue;
        if (Send(session, parameter.command) != 0)
            return ReportCommand(parameter.name);
        session.*parameter.field = parameter.wanted;
    }
    return 0;
}

int SetSaveFileParameters(FtpSession& session, bool names_path) {
    return SetParameters(session, std::span(SaveFileParameters).first(names_path ? 4 : 3));
}

// An empty save file in the session's QTEMP. Clearing fails when there is none yet.
int PrepareSaveFile(FtpSession& session, const std::string& name) {
    if (Send(session, "RCMD CLRSAVF FILE(QTEMP/" + name + ")") == 0 ||
        Send(session, "RCMD CRTSAVF FILE(QTEMP/" + name + ")") == 0)
        return 0;
    return ReportCommand("CRTSAVF");
}

} // namespace

int MakeParentDirectories(FtpSession* session, const std::string& path) {
    if (!path.starts_with('/'))
        return 1;
    for (std::size_t slash = path.find('/', 1); slash != path.npos; slash = path.find('/', slash + 1))
        if (const std::string command = "MKD " + path.substr(0, slash); !IsTooLong(command))
            Send(*session, command);
    return 0;
}

// Listing

namespace {

bool HasChildNamed(const ObjectNode& dir, const std::string& name) {
    for (const ObjectNode* child = dir.first_dir.get(); child != nullptr; child = child->next.get())
        if (child->name == name)
            return true;
    for (const ObjectFile* file = dir.first_file.get(); file != nullptr; file = file->next.get())
        if (file->name == name)
            return true;
    return false;
}

// Keeps a directory that cannot be listed as one object, to be saved whole.
void KeepAsOneObject(ObjectNode& directory) {
    if (directory.parent != nullptr) {
        AppendFile(*directory.parent, directory.name, directory.mode, directory.size, directory.mtime);
        MarkPartial(*directory.parent);
        ReleaseName(directory);
    } else if (!HasChildNamed(directory, directory.name)) {
        AppendFile(directory, directory.name, 0, 0, CalendarTime{});
    }
}

} // namespace

int ListFailed(const char* reply, ObjectNode* directory) {
    constexpr int missing_input = -22;
    constexpr std::array<std::string_view, 2> exempt{"", LibrariesPath};
    if (reply == nullptr || directory == nullptr) {
        LogFailure("NULL input\n");
        return missing_input;
    }
    if (std::find(exempt.begin(), exempt.end(), directory->name) != exempt.end()) {
        LogFailure("%s is exempt\n", MaskControls(directory->name).c_str());
        return ReportCommand("LIST", reply);
    }
    if (std::strstr(reply, "CPF3CAA") == nullptr)
        return ReportCommand("LIST", reply);
    KeepAsOneObject(*directory);
    return 0;
}

int ListDirectory(FtpSession* session, const char* path, DataCallback callback, void* context, ObjectNode* directory) {
    if (!IsSession(session))
        return -1;
    ReplyText reply;
    int listed = 0;
    const int result = WithRecovery(*session, [&](const Checkpoint&) {
        if (SetParameters(*session, ListingParameters) != 0)
            return -1;
        const std::string command = std::string("LIST ") + path;
        if (IsTooLong(command))
            return ReportTooLong("LIST command");
        PassPointOfNoReturn(*session);
        listed = SendForReply(*session, command, reply, {.receive = callback, .argument = context});
        return 0;
    });
    if (result != 0 || listed == 0)
        return result;
    return directory != nullptr ? ListFailed(reply.data(), directory) : ReportCommand("LIST", reply.data());
}

// Retrieval into the archive

namespace {

// Closes the entry and logs what failed: a cut in the archive's name, the entry's own blocks in this module's.
int CloseRetrieved(const EntryTarget& target, const ObjectFile& object, off_t start) {
    const ArchiveFailures failures = CloseEntry(target.writer, start, [&](std::int64_t size) {
        return target.build_header(object, static_cast<std::uint64_t>(size));
    });
    for (const ArchiveFailure& failure : failures) {
        if (failure.step == ArchiveStep::Seek || failure.step == ArchiveStep::Cut)
            target.report(failure);
        else
            LogFailure("%s\n", DescribeFailure(failure).c_str());
    }
    if (target.writer.bytes <= 0)
        LogMessage("Block returned no data\n");
    return LosesEntry(failures) ? -1 : 0;
}

// Appends one save file of the server as the object's entry. Puts `outer` back as soon as the retrieval has its reply.
// Requires: the archive is this thread's.
int AppendSaveFile(FtpSession& session, const Checkpoint& outer, const ObjectFile& object, const std::string& save_file,
                   const EntryTarget& target) {
    const off_t start = BeginEntry(target.writer);
    if (start < 0) {
        session.checkpoint = outer;
        LogFailure("lseek(): %s\n", std::strerror(errno));
        return -1;
    }
    ReplyText reply;
    const int retrieved =
        SendForReply(session, "RETR " + save_file, reply, {.receive = target.append, .argument = &target.writer});
    session.checkpoint = outer;
    const int result = retrieved != 0 ? ReportCommand("RETR", reply.data()) : 0;
    return CloseRetrieved(target, object, start) != 0 ? -1 : result;
}

// Waits for the archive and appends the save file to it; `started` receives the time at which the archive was this
// thread's. Returns 0 or -1; after -1 the data that arrived has been closed as an entry, or cut off. A broken
// connection releases the archive on its way to the checkpoint, so it never keeps the other workers out.
int RetrieveToArchive(FtpSession& session, const Checkpoint& outer, const ObjectFile& object,
                      const std::string& save_file, double& started, const EntryTarget& target) {
    int result;
    {
        const std::lock_guard<std::mutex> appending(target.writer.file.appending);
        started = SecondsNow();
        result = AppendSaveFile(session, outer, object, save_file, target);
    }
    if (TerminationRequested != 0)
        throw WorkerEnd{};
    return result;
}

} // namespace

// Saving

namespace {

// Reports a save that the server calls partial; false when it is none.
bool ReportPartialSave(const SaveMember& member, const SaveRequest& request, const ReplyText& reply, int verbosity) {
    if (request.options.precheck || member.partial == PartialRule::None)
        return false;
    const std::string& name = request.object.name;
    std::string text;
    if (member.partial == PartialRule::AnyReply) {
        text = MaskControls(reply.data());
    } else {
        const std::optional<std::string> count = CountNotSaved(reply.data());
        if (!count)
            return false;
        text = MaskControls(*count) + " objects not saved";
    }
    if (verbosity >= 1)
        LogMessage("%s: %s\n", MaskControls(name).c_str(), text.c_str());
    if (request.not_saved != nullptr)
        LogMessageTo(request.not_saved, "%s: %s\n", name.c_str(), text.c_str());
    return true;
}

// Builds the save command; empty after logging why it cannot be sent.
std::string BuildSaveCommand(const SaveMember& member, const SaveRequest& request) {
    std::optional<std::string> command = member.build(request.object, request.number, request.options);
    if (!command) {
        LogFailure("bad library name\n");
        return {};
    }
    if (IsTooLong(*command)) {
        ReportTooLong((std::string(member.verb) + " command").c_str());
        return {};
    }
    return *command;
}

} // namespace

int SaveObject(const SaveMember& member, FtpSession* session, const SaveRequest& request, SaveTimes& times,
               const EntryTarget& target) {
    if (!IsSession(session))
        return -1;
    const std::string save_file = "SAV" + std::to_string(request.number);
    return WithRecovery(*session, [&](const Checkpoint& outer) {
        if (SetSaveFileParameters(*session, member.names_path) != 0 || PrepareSaveFile(*session, save_file) != 0)
            return -1;
        const std::string command = BuildSaveCommand(member, request);
        if (command.empty())
            return -1;
        const double begun = SecondsNow();
        ReplyText reply;
        const int saved = SendForReply(*session, command, reply);
        const int verbosity = session->control->options.verbosity;
        if (saved < 0 || (saved > 0 && !ReportPartialSave(member, request, reply, verbosity)))
            return ReportCommand(member.verb, reply.data());
        const double ended = SecondsNow();
        PassPointOfNoReturn(*session);
        double started = ended;
        const int retrieved = RetrieveToArchive(*session, outer, request.object,
                                                "/QSYS.LIB/QTEMP.LIB/" + save_file + ".SAVF", started, target);
        times = {ended - begun, started - ended, SecondsNow() - started};
        return retrieved;
    });
}

// Restoring

namespace {

// Runs the restore command for one subject. `outer` is put back once the server has answered.
int RestoreSubject(const RestoreMember& member, FtpSession& session, const Checkpoint& outer, const StringPair& subject,
                   const std::string& command) {
    ReplyText reply;
    const int restored = SendForReply(session, command, reply);
    session.checkpoint = outer;
    if (restored == 0) {
        LogMessage("Restore Success: %s\n", MaskControls(subject.first).c_str());
        return 0;
    }
    if (!member.judges_reply) {
        ReportCommand(member.verb);
        return restored;
    }
    ReportCommand(member.verb, reply.data());
    return ClassifyRestoreReply(reply.data()) >= 1 ? 0 : -1;
}

// Restores every subject from the uploaded save file. The last one's result counts.
int RestoreFromSaveFile(const RestoreMember& member, FtpSession& session, const Checkpoint& outer,
                        const RestoreRequest& request) {
    int result = 0;
    for (const StringPair& subject : RestoreSubjects(member, request.name, request.objects)) {
        if (member.each_path && session.control->options.verbosity >= 1)
            LogMessage("Object   : %s\n", MaskControls(subject.first).c_str());
        const std::string command = BuildRestoreCommand(member, subject, request.exclude, session.release);
        if (member.each_path && session.release != Release::V5R4M0)
            MakeParentDirectories(&session, subject.second.value_or(subject.first));
        if (IsTooLong(command))
            return ReportTooLong((std::string(member.verb) + " command").c_str());
        result = RestoreSubject(member, session, outer, subject, command);
    }
    return result;
}

} // namespace

int RestoreObject(const RestoreMember& member, FtpSession* session, RestoreRequest& request, RestoreTimes& times,
                  const Transfer& upload) {
    if (!IsSession(session))
        return -1;
    const char* const fault = member.library ? PrepareLibraryNames(request.objects.front()) : "";
    if (*fault != '\0') {
        LogFailure("%s\n", fault);
        return -1;
    }
    return WithRecovery(*session, [&](const Checkpoint& outer) {
        if (SetSaveFileParameters(*session, member.names_path) != 0 || PrepareSaveFile(*session, "SAVTEMP") != 0)
            return -1;
        const double begun = SecondsNow();
        PassPointOfNoReturn(*session);
        if (SendCommand(session->control.get(), "STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF", {}, upload) != 0)
            return ReportCommand("STOR");
        const double uploaded = SecondsNow();
        const int result = RestoreFromSaveFile(member, *session, outer, request);
        times = {SecondsNow() - uploaded, uploaded - begun};
        return result;
    });
}

int RestoreAuthority(FtpSession* session) {
    if (!IsSession(session))
        return -1;
    return WithRecovery(*session, [&](const Checkpoint&) {
        return Send(*session, RestoreAuthorityCommand) == 0 ? 0 : ReportCommand("RSTAUT");
    });
}
