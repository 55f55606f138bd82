// Reply lines, 227 replies and a transfer, from a server that sends pieces and then ends both connections.
#include "fuzz_support.h"
#include "socket.h"

static Descriptor DataEnd; // what every data connection leads to: no address of a reply is ever really connected to

extern "C" int __wrap_connect(int socket, const sockaddr*, socklen_t) {
    return ::dup2(DataEnd.Get(), socket) < 0 ? -1 : 0;
}

static int TakeData(void* bytes, char* data, int* count) {
    static_cast<std::string*>(bytes)->append(data, static_cast<std::size_t>(*count));
    return 0;
}

void Run(FuzzedDataProvider& input) {
    const char* const command = input.PickValueInArray({"", "SYST", "PASV", "LIST"}); // none: just read
    std::vector<char> reply(input.ConsumeIntegralInRange<std::size_t>(0, 300));
    const std::string data = input.ConsumeRandomLengthString(1000);
    int ends[4];
    assert(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends) + ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends + 2) == 0);
    FtpConnection control;
    control.tag = ControlTag;
    control.data = std::make_unique<FtpConnection>();
    control.data->tag = DataTag;
    control.socket.Reset(ends[0]);
    DataEnd.Reset(ends[2]);
    const Descriptor server(ends[1]), data_server(ends[3]);
    ::send(data_server.Get(), data.data(), data.size(), MSG_DONTWAIT);
    for (std::string all; const std::string& piece : TakePieces(input, ReplyCapacity + 1, all))
        ::send(server.Get(), piece.data(), piece.size(), MSG_DONTWAIT);
    ::shutdown(server.Get(), SHUT_WR);
    ::shutdown(data_server.Get(), SHUT_WR);
    std::string received;
    const Transfer transfer{.receive = *command == 'L' ? TakeData : nullptr, .argument = &received};
    for (int result = 0; result != -1;) {
        std::array<char, ReplyCapacity> line{};
        result = *command == '\0' ? ReadReply(&control, line) : SendCommand(&control, command, reply, transfer);
        assert(line.back() == '\0' && std::strstr(line.data(), "\r\n") == nullptr);
        assert(*command != '\0' || result != 0 || line[0] == '2' || line[0] == '3');
        const std::size_t held = ReplyCapacity - control.replies.Room().size();
        assert(control.replies.Lines() == 0 || control.replies.FirstLine().size() + 2 <= held);
    }
    assert(received.empty() || received == data);
}
