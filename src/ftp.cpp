#include "ftp.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>

#include <sys/stat.h>
#include <unistd.h>

#include "path_file.h"
#include "settings.h"

std::atomic<int> ServerRelease{0};

namespace {

constexpr std::size_t ReplyTextCapacity = 128; // of the reply texts that messages quote, with their terminator
using ReplyText = std::array<char, ReplyTextCapacity>;

bool IsSession(const FtpSession* session) {
    return session != nullptr && session->tag == SessionTag;
}

int Send(FtpSession& session, const std::string& command) {
    return SendCommand(session.control.get(), command.c_str());
}

// Sends with a reply buffer, which is emptied first and ends in a terminator whatever comes.
int SendForReply(FtpSession& session, const std::string& command, ReplyText& reply, const Transfer& transfer = {}) {
    reply.fill('\0');
    const int result = SendCommand(session.control.get(), command.c_str(), reply, transfer);
    reply.back() = '\0';
    return result;
}

// "%s command failed\n", after the caller's own head.
int ReportCommand(const char* verb, SourcePlace place = SourcePlace::Here()) {
    LogMessageTo(stderr, "%s%s command failed\n", FailureHead(place).c_str(), verb);
    return -1;
}

// The same with the server's reply on a second line.
int ReportCommand(const char* verb, const ReplyText& reply, SourcePlace place = SourcePlace::Here()) {
    LogMessageTo(stderr, "%s%s command failed\n  %s\n", FailureHead(place).c_str(), verb, reply.data());
    return -1;
}

int ReportTooLong(const char* what, SourcePlace place = SourcePlace::Here()) {
    LogMessageTo(stderr, "%s%s too long\n", FailureHead(place).c_str(), what);
    return -1;
}

// Commands with a limit of their own: longer ones are refused, one of just `limit` characters goes out
// without its last.
bool FitCommand(std::string& command, std::size_t limit) {
    if (command.size() > limit)
        return false;
    if (command.size() == limit)
        command.pop_back();
    return true;
}

} // namespace

// Opening, login, closing

std::unique_ptr<FtpSession> NewSession(const char* host, const char* service) {
    auto session = NewRecord<FtpSession>();
    if (session == nullptr) {
        LogMessageTo(stderr, "%smalloc(%d) failed\n", FailureHead().c_str(), static_cast<int>(sizeof(FtpSession)));
        return nullptr;
    }
    session->control = OpenConnections(session.get(), host, service);
    if (session->control == nullptr)
        return nullptr;
    session->tag = SessionTag;
    return session;
}

namespace {

// One half of the credentials: the command that carries it and how messages call it.
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
        return ReportCommand(step.verb, reply);
    return 0;
}

// The value to log in with: the caller's, else the stored one.
std::optional<std::string> ChooseLogin(const char* given, const std::optional<std::string>& stored,
                                       const char* article_and_name, SourcePlace place = SourcePlace::Here()) {
    if (given != nullptr)
        return given;
    if (!stored)
        LogMessageTo(stderr, "%swe don't have a %s\n", FailureHead(place).c_str(), article_and_name);
    return stored;
}

// Takes the release from a reply such as: 215  OS/400 is the remote operating system. The TCP/IP version is
// "V5R4M0". Without a text in quotes what is known of the release stays.
void NoteRelease(std::string_view reply) {
    const std::size_t from = reply.find('"');
    const std::size_t to = from == reply.npos ? reply.npos : reply.find('"', from + 1);
    if (to == reply.npos) {
        LogMessageTo(stderr, "%sinvalid SYST reply\n", FailureHead().c_str());
        return;
    }
    const std::string_view release = reply.substr(from + 1, to - from - 1);
    ServerRelease = release == "V5R3M0" ? 1 : release == "V5R4M0" ? 2 : 0;
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
    ReplyText reply{};
    if (SendForReply(*session, "SYST", reply) != 0)
        ReportCommand("SYST");
    else
        NoteRelease(reply.data());
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

// Takes control from a broken connection back to the protected operation that marked the checkpoint.
struct ConnectionBroken {
    const void* operation;
};

using ProtectedOperation = std::function<int(const Checkpoint& outer)>;

// Runs an operation of several commands under a checkpoint of its own, once more after each recovery as long
// as CHECKPOINT_RETRY stands. The checkpoint found on entry is handed to the operation, which may put it back
// early, and is back in any case when this returns, except after a failed recovery: then nothing is armed.
int Protect(FtpSession& session, const ProtectedOperation& operation) {
    const Checkpoint outer = session.checkpoint;
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
        if (RecoverCheckpoint(&session) != 0) {
            LogMessageTo(stderr, "%scan't recover checkpoint\n", FailureHead().c_str());
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

int AbortToCheckpoint(FtpSession* session) {
    if (!IsSession(session)) {
        LogMessageTo(stderr, "%snot a session\n", FailureHead().c_str());
        return -1;
    }
    if ((session->checkpoint.flags & CHECKPOINT_ARMED) == 0) {
        LogMessageTo(stderr, "%sjump buffer invalid\n", FailureHead().c_str());
        return -1;
    }
    throw ConnectionBroken{session->checkpoint.operation};
}

int RecoverCheckpoint(FtpSession* session) {
    if (!IsSession(session))
        return -1;
    LogMessageTo(stderr, "%srecovering checkpoint\n", FailureHead().c_str());
    session->checkpoint = {};
    session->control->data->socket.Reset();
    if (ConnectControl(session->control.get()) != 0) {
        LogMessageTo(stderr, "%scan't reopen control connection\n", FailureHead().c_str());
        return -1;
    }
    if (Login(session, nullptr, nullptr) != 0) {
        LogMessageTo(stderr, "%slogin failed\n", FailureHead().c_str());
        session->control->socket.Reset(); // the next operation finds it gone, and tries anew
        return -1;
    }
    session->mode = session->structure = session->type = session->name_format = session->list_format = 0;
    return 0;
}

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

int ReportList(const char* reply) {
    LogMessageTo(stderr, "%sLIST command failed\n  %s\n", FailureHead().c_str(), reply);
    return -1;
}

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
        LogMessageTo(stderr, "%sNULL input\n", FailureHead().c_str());
        return missing_input;
    }
    if (std::find(exempt.begin(), exempt.end(), directory->name) != exempt.end()) {
        LogMessageTo(stderr, "%s%s is exempt\n", FailureHead().c_str(), directory->name.c_str());
        return ReportList(reply);
    }
    if (std::strstr(reply, "CPF3CAA") == nullptr)
        return ReportList(reply);
    KeepAsOneObject(*directory);
    return 0;
}

int ListDirectory(FtpSession* session, const char* path, DataCallback callback, void* context, ObjectNode* directory) {
    if (!IsSession(session))
        return -1;
    ReplyText reply{};
    int listed = 0;
    const int result = Protect(*session, [&](const Checkpoint& outer) {
        if (SetParameters(*session, ListingParameters) != 0)
            return -1;
        constexpr std::size_t longest = 4095;
        std::string command = std::string("LIST ") + path;
        if (!FitCommand(command, longest))
            return ReportTooLong("LIST command");
        PassPointOfNoReturn(*session);
        listed = SendForReply(*session, command, reply, {.receive = callback, .argument = context});
        session->checkpoint = outer;
        return 0;
    });
    if (result != 0 || listed == 0)
        return result;
    return directory != nullptr ? ListFailed(reply.data(), directory) : ReportList(reply.data());
}

// Retrieval into the archive

namespace {

std::mutex ArchiveLock; // held for the whole of one retrieval

// Reports a block of the format that could not be written and cuts the entry off.
int CutEntryAfter(const char* failure, const ArchiveWriter& writer, off_t start,
                  SourcePlace place = SourcePlace::Here()) {
    LogMessageTo(stderr, "%s%s: %s\n", FailureHead(place).c_str(), failure, std::strerror(errno));
    TruncateArchive(writer.descriptor, start);
    return -1;
}

// Fills the last block of the data, if one is begun, and counts its data bytes.
int PadEntry(ArchiveWriter& writer, off_t start) {
    if (writer.pending == 0)
        return 0;
    std::fill(writer.block.begin() + writer.pending, writer.block.end(), '\0');
    const bool written = WriteArchiveBlock(writer.descriptor, writer.block);
    if (!written)
        TruncateArchive(writer.descriptor, start);
    writer.bytes += writer.pending;
    return written ? 0 : -1;
}

// Writes one block of the format itself. A write cut short is taken up again: it ends well, or tells why not.
bool PutBlock(int descriptor, const CtarBlock& block) {
    std::size_t done = 0;
    while (done < block.size()) {
        const ssize_t written = ::write(descriptor, block.data() + done, block.size() - done);
        if (written <= 0)
            return false;
        done += static_cast<std::size_t>(written);
    }
    return true;
}

// Closes the entry whose data stand from `start` on: a new sentinel behind them, then the header over the old
// sentinel. All three steps are taken even after a failed one, in this order.
int CloseEntry(ArchiveWriter& writer, const ObjectFile& object, off_t start) {
    int result = PadEntry(writer, start);
    if (writer.bytes <= 0) {
        TruncateArchive(writer.descriptor, start);
        LogMessage("Block returned no data\n");
        return result;
    }
    if (!PutBlock(writer.descriptor, BuildCtarSentinel()))
        result = CutEntryAfter("CTAR sentinel failed write()", writer, start);
    const CtarBlock header = BuildCtarHeader(object, static_cast<std::uint64_t>(writer.bytes));
    const off_t sentinel = start - static_cast<off_t>(BlockSize); // below 0 in an archive without its first one
    if (::lseek(writer.descriptor, sentinel, SEEK_SET) < 0 || !PutBlock(writer.descriptor, header))
        result = CutEntryAfter("CTAR header failed to update", writer, start);
    return result;
}

} // namespace

ArchiveLockGuard::ArchiveLockGuard() : lock_(ArchiveLock) {}

namespace {

// Appends an entry with what the server sends. Puts `outer` back as soon as the retrieval has its reply.
int AppendEntry(FtpSession& session, const Checkpoint& outer, const ObjectFile& object, const std::string& save_file,
                DataCallback callback, ArchiveWriter& writer) {
    const off_t start = ::lseek(writer.descriptor, 0, SEEK_END);
    if (start < 0) {
        session.checkpoint = outer;
        LogMessageTo(stderr, "%slseek(): %s\n", FailureHead().c_str(), std::strerror(errno));
        return -1;
    }
    ReplyText reply;
    const int retrieved = SendForReply(session, "RETR " + save_file, reply, {callback, nullptr, &writer});
    session.checkpoint = outer;
    const int result = retrieved != 0 ? ReportCommand("RETR", reply) : 0;
    return CloseEntry(writer, object, start) != 0 ? -1 : result;
}

} // namespace

int RetrieveToArchive(FtpSession* session, const Checkpoint& outer, const ObjectFile& object,
                      const std::string& save_file, double& started, DataCallback callback, ArchiveWriter& writer) {
    int result;
    {
        const ArchiveLockGuard lock;
        started = SecondsNow();
        result = AppendEntry(*session, outer, object, save_file, callback, writer);
    }
    if (TerminationRequested != 0)
        throw WorkerEnd{};
    return result;
}

// Saving

namespace {

// Reports a save that the server calls partial; false when it is none.
bool ReportPartialSave(const SaveMember& member, const ObjectFile& object, const ReplyText& reply) {
    if (RunSettings.precheck || member.partial == PartialRule::None)
        return false;
    std::string line;
    if (member.partial == PartialRule::AnyReply) {
        line = object.name + ": " + reply.data();
    } else {
        const std::optional<std::string> count = CountNotSaved(reply.data());
        if (!count)
            return false;
        line = object.name + ": " + *count + " objects not saved";
    }
    if (RunSettings.verbosity >= 1)
        LogMessageTo(stdout, "%s\n", line.c_str());
    if (RunSettings.not_backed_up)
        LogMessageTo(RunSettings.not_backed_up.get(), "%s\n", line.c_str());
    return true;
}

// Builds the save command; empty after a message.
std::string BuildSaveCommand(const SaveMember& member, ObjectFile& object, std::uint32_t number) {
    std::optional<std::string> command = member.build(object, number);
    if (!command) {
        LogMessageTo(stderr, "%sbad library name\n", FailureHead().c_str());
        return {};
    }
    if (IsTooLong(*command)) {
        ReportTooLong((std::string(member.verb) + " command").c_str());
        return {};
    }
    return *command;
}

} // namespace

int SaveObject(const SaveMember& member, FtpSession* session, ObjectFile& object, std::uint32_t number,
               TransferStats* stats, DataCallback callback, ArchiveWriter& writer) {
    if (!IsSession(session))
        return -1;
    const std::string save_file = "SAV" + std::to_string(number);
    return Protect(*session, [&](const Checkpoint& outer) {
        if (SetSaveFileParameters(*session, member.names_path) != 0 || PrepareSaveFile(*session, save_file) != 0)
            return -1;
        const std::string command = BuildSaveCommand(member, object, number);
        if (command.empty())
            return -1;
        const double begun = SecondsNow();
        ReplyText reply;
        const int saved = SendForReply(*session, command, reply);
        if (saved < 0 || (saved > 0 && !ReportPartialSave(member, object, reply)))
            return ReportCommand(member.verb, reply);
        const double ended = SecondsNow();
        PassPointOfNoReturn(*session);
        double started = ended;
        const int result = RetrieveToArchive(session, outer, object, "/QSYS.LIB/QTEMP.LIB/" + save_file + ".SAVF",
                                             started, callback, writer);
        if (stats != nullptr)
            *stats = {ended - begun, started - ended, SecondsNow() - started};
        return result;
    });
}

// Restoring

namespace {

// Cuts ".LIB" off a library's path; false when it ends otherwise.
bool CutLibrarySuffix(std::string& path) {
    if (!HasLibrarySuffix(path))
        return false;
    path.resize(path.size() - LibrarySuffix.size());
    return true;
}

// Checks and cuts the names of a library and its destination.
int PrepareLibraryNames(StringPair& library) {
    constexpr std::size_t longest = 24; // "/QSYS.LIB/", ten characters and ".LIB"
    if (!CutLibrarySuffix(library.first)) {
        LogMessageTo(stderr, "%sbad library name\n", FailureHead().c_str());
        return -1;
    }
    if (!library.second)
        return 0;
    std::string& destination = *library.second;
    if (!destination.starts_with(LibraryPrefix) || destination.size() > longest || !CutLibrarySuffix(destination)) {
        LogMessageTo(stderr, "%sbad library destination\n", FailureHead().c_str());
        return -1;
    }
    return 0;
}

// What the member's command or commands name: every pair, the library, or the entry itself.
StringList Subjects(const RestoreMember& member, const RestoreRequest& request) {
    if (member.each_path)
        return request.objects;
    if (member.library)
        return {request.objects.front()};
    return {{request.name, std::nullopt}};
}

// Runs the restore command for one subject. `outer` is put back once the server has answered.
int RestoreSubject(const RestoreMember& member, FtpSession& session, const Checkpoint& outer, const StringPair& subject,
                   const std::string& command) {
    ReplyText reply{};
    const int restored = member.judges_reply ? SendForReply(session, command, reply) : Send(session, command);
    session.checkpoint = outer;
    if (restored == 0) {
        LogMessage("Restore Success: %s\n", subject.first.c_str());
        return 0;
    }
    if (!member.judges_reply) {
        ReportCommand(member.verb);
        return restored;
    }
    ReportCommand(member.verb, reply);
    return ClassifyRestoreReply(reply.data()) >= 1 ? 0 : -1;
}

// Restores every subject from the uploaded save file. The last one's result counts.
int RestoreSubjects(const RestoreMember& member, FtpSession& session, const Checkpoint& outer,
                    const StringList& subjects) {
    int result = 0;
    for (const StringPair& subject : subjects) {
        StringList omissions;
        if (member.each_path) {
            if (RunSettings.verbosity >= 1)
                LogMessage("Object   : %s\n", subject.first.c_str());
            MatchPathFile(subject.first, &omissions, RunSettings.exclude.get());
            if (ServerRelease < 2)
                MakeParentDirectories(&session, subject.second.value_or(subject.first));
        }
        const std::string command = member.build(subject, omissions);
        if (IsTooLong(command))
            return ReportTooLong((std::string(member.verb) + " command").c_str());
        result = RestoreSubject(member, session, outer, subject, command);
    }
    return result;
}

} // namespace

int RestoreObject(const RestoreMember& member, FtpSession* session, RestoreRequest& request, RestoreTimes* times,
                  DataCallback callback, void* argument) {
    if (!IsSession(session))
        return -1;
    if (member.library && PrepareLibraryNames(request.objects.front()) != 0)
        return -1;
    return Protect(*session, [&](const Checkpoint& outer) {
        if (SetSaveFileParameters(*session, member.names_path) != 0 || PrepareSaveFile(*session, "SAVTEMP") != 0)
            return -1;
        const double begun = SecondsNow();
        PassPointOfNoReturn(*session);
        if (SendCommand(session->control.get(), "STOR /QSYS.LIB/QTEMP.LIB/SAVTEMP.SAVF", {},
                        {nullptr, callback, argument}) != 0)
            return ReportCommand("STOR");
        const double uploaded = SecondsNow();
        const int result = RestoreSubjects(member, *session, outer, Subjects(member, request));
        if (times != nullptr)
            *times = {SecondsNow() - uploaded, uploaded - begun};
        return result;
    });
}

int RestoreAuthority(FtpSession* session) {
    if (!IsSession(session))
        return -1;
    return Protect(*session, [&](const Checkpoint&) {
        return Send(*session, RestoreAuthorityCommand) == 0 ? 0 : ReportCommand("RSTAUT");
    });
}
