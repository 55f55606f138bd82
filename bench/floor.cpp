// What no client can be cheaper than. Replies are taken for good.
//
//     floor get ADDRESS REMOTE LOCAL   reads the data connection into a buffer of 64 KiB and writes the file
//     floor put ADDRESS REMOTE LOCAL   the other way round
//     floor save ADDRESS OBJECTS LOCAL sends, for each path in the file OBJECTS, what a backup sends for it, and
//                                      appends the save files

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

static int Connect(const char* address, int port) {
    const int socket = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<in_port_t>(port));
    ::inet_pton(AF_INET, address, &peer.sin_addr);
    return ::connect(socket, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) == 0 ? socket : -1;
}

// Sends a command, when there is one, and gives the reply.
static std::string Ask(int control, const std::string& command) {
    const std::string line = command + "\r\n";
    std::array<char, 4096> reply{};
    if (!command.empty() && ::write(control, line.data(), line.size()) < 0)
        return {};
    return ::read(control, reply.data(), reply.size() - 1) > 0 ? reply.data() : "";
}

static bool Pump(int from, int to) {
    static std::array<char, 65536> buffer;
    for (;;) {
        const ssize_t count = ::read(from, buffer.data(), buffer.size());
        if (count <= 0)
            return count == 0;
        for (ssize_t done = 0; done < count;) {
            const ssize_t written = ::write(to, buffer.data() + done, static_cast<std::size_t>(count - done));
            if (written < 0)
                return false;
            done += written;
        }
    }
}

static int OpenData(int control, const char* address) {
    const std::string passive = Ask(control, "PASV");
    int numbers[6] = {};
    const char* at = std::strchr(passive.c_str(), '(');
    for (int& number : numbers)
        number = static_cast<int>(std::strtol(at + 1, const_cast<char**>(&at), 10));
    return Connect(address, numbers[4] << 8 | numbers[5]);
}

static bool Move(int control, const char* address, const std::string& command, int file, bool get) {
    const int data = OpenData(control, address);
    const std::string preliminary = Ask(control, command);
    const bool good = get ? Pump(data, file) : Pump(file, data);
    ::close(data);
    // After a short transfer both replies may have come with one read.
    return good && (preliminary.find("\n2") != preliminary.npos || Ask(control, "").starts_with("2"));
}

static bool Save(int control, const char* address, const char* objects, int file) {
    std::ifstream paths(objects);
    Ask(control, "RCMD CRTSAVF FILE(QTEMP/S)");
    for (std::string path; std::getline(paths, path);) {
        Ask(control, "RCMD CLRSAVF FILE(QTEMP/S)");
        const std::size_t name = path.rfind('/') + 1;
        Ask(control, path.ends_with(".LIB")
                         ? "RCMD SAVLIB LIB(" + path.substr(name, path.size() - name - 4) + ") DEV(*SAVF) SAVF(QTEMP/S)"
                         : "RCMD SAV DEV('/QSYS.LIB/QTEMP.LIB/S.FILE') OBJ(('\"" + path + "\"')) SUBTREE(*ALL)");
        if (!Move(control, address, "RETR /QSYS.LIB/QTEMP.LIB/S.SAVF", file, true))
            return false;
    }
    return true;
}

int main(int argc, char** argv) {
    if (argc != 5)
        return 2;
    const std::string verb = argv[1];
    const int control = Connect(argv[2], 21);
    for (const char* command : {"", "USER FRED", "PASS secret", "TYPE I", "SITE NAMEFMT 1"})
        if (Ask(control, command).empty())
            return 1;
    const int file = ::open(argv[4], verb == "put" ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (verb == "save")
        return Save(control, argv[2], argv[3], file) ? 0 : 1;
    return Move(control, argv[2], (verb == "get" ? "RETR " : "STOR ") + std::string(argv[3]), file, verb == "get") ? 0
                                                                                                                   : 1;
}
