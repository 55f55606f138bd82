// One session that moves plain files, for servers that know nothing of save files.
//
//     raw-transfer ADDRESS USER PASSWORD {get|put REMOTE LOCAL}...
//
// Each transfer prints SendCommand's result and the server's last line that was not a positive reply. The session
// goes on after a refusal. Ends with the results' sum: 0 when every file was moved, the number of refusals, or 255
// once the session was lost.

#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "ftp.h"

namespace {

int WriteLocal(void* argument, char* buffer, int* count) {
    const auto size = static_cast<std::size_t>(*count);
    return std::fwrite(buffer, 1, size, static_cast<std::FILE*>(argument)) == size ? 0 : -1;
}

int ReadLocal(void* argument, std::span<char> room, std::string_view& data) {
    auto* const file = static_cast<std::FILE*>(argument);
    data = {room.data(), std::fread(room.data(), 1, room.size(), file)};
    return std::ferror(file) != 0 ? -1 : 0;
}

int Move(FtpSession& session, bool get, const std::string& remote, const char* local) {
    const Stream file(std::fopen(local, get ? "wb" : "rb"));
    if (file == nullptr) {
        std::perror(local);
        return -1;
    }
    const Transfer transfer{
        .receive = get ? WriteLocal : nullptr, .send = get ? nullptr : ReadLocal, .argument = file.get()};
    std::array<char, 128> reply{};
    const std::string command = (get ? "RETR " : "STOR ") + remote;
    const int result = SendCommand(session.control.get(), command.c_str(), reply, transfer);
    reply.back() = '\0';
    std::printf("%s: %d, %s\n", command.c_str(), result, reply.data());
    return get && !IsWritten(file.get(), local) ? -1 : result;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 7 || argc % 3 != 1)
        return 255;
    ::setlinebuf(stdout);
    std::unique_ptr<FtpSession> session = NewSession(argv[1], "ftp");
    if (session == nullptr || Login(session.get(), argv[2], argv[3]) != 0 ||
        SendCommand(session->control.get(), "TYPE I") != 0)
        return 255;
    int refused = 0;
    for (char** argument = argv + 4; *argument != nullptr; argument += 3) {
        const int result = Move(*session, std::strcmp(argument[0], "get") == 0, argument[1], argument[2]);
        if (result < 0)
            return 255;
        refused += result;
    }
    return Quit(std::move(session)) == 0 ? refused : 255;
}
