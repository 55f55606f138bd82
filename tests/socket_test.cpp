#include "socket.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "name_lookup.h"
#include "test_support.h"

namespace {

// Collects what a download brings.
struct Collector {
    std::string bytes;
    std::vector<int> counts;

    static int Take(void* self, char* buffer, int* count) {
        auto* const collector = static_cast<Collector*>(self);
        collector->bytes.append(buffer, static_cast<std::size_t>(*count));
        collector->counts.push_back(*count);
        return 0;
    }
};

void Write(const Descriptor& to, const std::string& text, int flags = 0) {
    EXPECT_EQ(::send(to.Get(), text.data(), text.size(), flags), text.size());
}

// A connection whose other end is the test. The control side keeps packets apart, so that every piece sent is
// one read of the reader; the data side is a stream.
struct Peer {
    FtpConnection control;
    Descriptor server;
    Descriptor data_server;
    Collector collector;

    Peer() {
        control.tag = ControlTag;
        server = Connect(control.socket, SOCK_SEQPACKET);
        control.data = std::make_unique<FtpConnection>();
        control.data->tag = DataTag;
        ::setenv("VONDRAL_TEST_MINUTE", "1", 1);
    }
    void SetTimeout(int minutes) { control.options.timeout = control.data->options.timeout = minutes; }
    void SendData(const std::string& data) const { Write(data_server, data); }
    void EndData() const { ::shutdown(data_server.Get(), SHUT_WR); }
    void Send(const std::string& piece) const { Write(server, piece); }
    int Retrieve() { return SendCommand(&control, "RETR x", {}, {.receive = Collector::Take, .argument = &collector}); }
    std::string Received() const {
        std::array<char, 8192> bytes;
        const ssize_t count = ::recv(server.Get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
        return count < 0 ? "nothing" : std::string(bytes.data(), static_cast<std::size_t>(count));
    }
    static Descriptor Connect(Descriptor& client, int type) {
        int ends[2];
        EXPECT_EQ(::socketpair(AF_UNIX, type, 0, ends), 0);
        client.Reset(ends[0]);
        return Descriptor(ends[1]);
    }
};

// A peer with an open data connection, which may have sent a reply.
struct DataPeer : Peer {
    explicit DataPeer(const std::string& reply = "") {
        data_server = Connect(control.data->socket, SOCK_STREAM);
        if (!reply.empty()) // an empty packet would be the end
            Send(reply);
    }
};

// What each of these calls of the reader returns: its result and line.
std::string Read(FtpConnection& control, int calls = 1) {
    std::string all;
    for (; calls > 0; --calls) {
        std::array<char, ReplyCapacity> line{};
        all += FormatText("%d ", ReadReply(&control, line)) + line.data() + (calls > 1 ? "|" : "");
    }
    return all;
}

TEST(ReplyReader, JudgesLinesByTheirFirstDigitAndPassesOverIntermediateOnes) {
    Peer peer;
    for (const char* const piece : {"220 a\r\n", "331 b\r\n150 c\r\n", "550 d\r\n", "x\r\n"})
        peer.Send(piece);
    EXPECT_EQ(Read(peer.control, 5), "0 220 a|0 331 b|1 150 c|1 550 d|1 x");
    peer.Send("220-QTCP at HOST.\r\n");
    peer.Send("220 later\r\n");
    EXPECT_EQ(Read(peer.control), "0 220 later");
    peer.Send("550-a\r\n550-b\r\n550 c\r\n");
    EXPECT_EQ(Read(peer.control), "1 550 c");
    peer.Send("250 first\r\n250-second\r\n250 third\r\n");
    EXPECT_EQ(Read(peer.control, 3), "0 250 first|0 250-second|0 250 third"); // the second was held already
}

TEST(ReplyReader, CountsLineEndsWithinOneReadOnly) {
    Peer peer;
    peer.Send("220 a\r");
    peer.Send("\n");
    peer.Send("220 b\r\n");
    EXPECT_EQ(Read(peer.control), "0 220 a"); // came to light with the second end
    EXPECT_EQ(peer.control.replies.Lines(), 0);
    EXPECT_EQ(peer.control.replies.FirstLine(), "220 b");
    for (const char byte : std::string("220 c\r\n"))
        peer.Send(std::string(1, byte)); // never counted
    Capture capture;
    EXPECT_EQ(Read(peer.control), "-1 ");
    EXPECT_EQ(capture.Take(), "vondral[socket.cpp]: poll(): timedout on control read after 60.00s\n");
    EXPECT_TRUE(peer.control.socket.IsOpen());
}

TEST(ReplyReader, HoldsItsLimits) {
    Peer peer;
    peer.Send("220 " + std::string(4090, 'x') + "\r\n"); // just fills the buffer
    EXPECT_EQ(Read(peer.control).size(), 2U + 4094U);
    peer.Send(std::string(4096, 'x'));
    EXPECT_EQ(Read(peer.control, 2), "-1 |-1 "); // the second time without waiting
}

TEST(ReplyReader, EndlessRepliesBreakTheConnection) {
    for (const char* const line : {"150 still busy\r\n", "220-more to come\r\n", "150 one\r\n150-two\r\n"}) {
        Peer peer;
        ::setenv("VONDRAL_TEST_MINUTE", "60000", 1); // nothing but the flood ends it
        std::thread flood([&peer, text = std::string(line)] {
            while (::send(peer.server.Get(), text.data(), text.size(), MSG_NOSIGNAL) > 0) {
            }
        });
        Capture capture;
        EXPECT_EQ(SendCommand(&peer.control, "RCMD SAV"), -1) << line;
        EXPECT_THAT(capture.Take(),
                    testing::HasSubstr("vondral[socket.cpp]: more than 300000 bytes of replies to one command\n"));
        EXPECT_FALSE(peer.control.socket.IsOpen());
        flood.join();
    }
}

TEST(Command, LengthLimits) {
    Peer peer;
    const std::string command(4094, 'x');
    Capture capture;
    EXPECT_EQ(SendCommand(&peer.control, command.c_str()), -1);
    EXPECT_EQ(capture.Take(), "vondral[socket.cpp]: command too long\n");
    EXPECT_EQ(peer.Received(), "nothing");
    for (const std::size_t cut : {2U, 1U}) {
        peer.Send("200 ok\r\n");
        EXPECT_EQ(SendCommand(&peer.control, command.c_str() + cut), 0);
        EXPECT_EQ(peer.Received(), command.substr(cut) + (cut == 2 ? "\r\n" : std::string("\r\0", 2))); // LF cut off
    }
}

TEST(Command, WaitsForTheFinalReplyHoweverLong) {
    Peer peer;
    std::thread server([&peer] {
        ::usleep(300000);
        peer.Send("250 done\r\n");
    });
    Capture capture;
    EXPECT_EQ(SendCommand(&peer.control, "RCMD SAV"), 0);
    server.join();
    EXPECT_THAT(capture.Take(), testing::StartsWith("vondral[socket.cpp]: poll(): timedout after 60.00s (60.00s)\n"
                                                    "vondral[socket.cpp]: poll(): timedout after 60.00s (120.00s)\n"));
}

TEST(Command, CopiesRefusalsAndTheReplyOfSyst) {
    Peer peer;
    peer.control.reply_bytes = LongestReplies; // of the commands before
    std::array<char, 8> reply{};
    peer.Send("150 soon\r\n550 no way\r\n");
    EXPECT_EQ(SendCommand(&peer.control, "X", reply), 1);
    EXPECT_EQ(std::string(reply.data(), 8), "550 no w"); // cut, and so without an end
    reply.fill('-');
    peer.Send("215 a\r\n");
    EXPECT_EQ(SendCommand(&peer.control, "X", reply), 0);
    EXPECT_EQ(reply[0], '-');
    peer.Send("215 a\r\n");
    EXPECT_EQ(SendCommand(&peer.control, "syst", reply), 0);
    EXPECT_STREQ(reply.data(), "215 a");
}

TEST(Transfer, ReceivesWholeBlocks) {
    DataPeer peer("150 coming\r\n");
    std::thread server([&peer] {
        for (int piece = 0; piece < 15; ++piece)
            peer.SendData(std::string(10000, 'd'));
        peer.EndData();
        peer.Send("226 done\r\n");
    });
    ::setenv("VONDRAL_TEST_MINUTE", "5000", 1);
    peer.control.data->options.verbosity = 5;
    Capture capture;
    EXPECT_EQ(peer.Retrieve(), 0);
    server.join();
    EXPECT_THAT(capture.Take(), testing::HasSubstr("vondral[socket.cpp]: sending 65536 bytes to callback\n"));
    EXPECT_EQ(peer.collector.bytes, std::string(150000, 'd'));
    EXPECT_EQ(peer.collector.counts, (std::vector<int>{65536, 65536, 150000 - 2 * 65536}));
    EXPECT_FALSE(peer.control.data->socket.IsOpen());
}

TEST(Transfer, DownloadEndsAfterAsManySilentMinutesAsAllowed) {
    DataPeer peer("150 coming\r\n426 gave up\r\n");
    peer.SetTimeout(3);
    peer.SendData("abc");
    Capture capture;
    EXPECT_EQ(peer.Retrieve(), 1);
    const std::string head = "vondral[socket.cpp]: ";
    const std::string silent = head + "poll(): timedout on data read after 60.00s ";
    EXPECT_EQ(capture.Take(), silent + "(1 times)\n" + silent + "(2 times)\n" + silent + "(3 times)\n" + head +
                                  "Timeout limit reached (3 times).\n");
    EXPECT_EQ(peer.collector.bytes, "abc"); // handed over before the silence counted
}

// Silent minutes count in a row: any data starts the count over.
TEST(Transfer, DataBetweenSilentMinutesKeepsADownloadAlive) {
    DataPeer peer;
    peer.SetTimeout(12);
    ::setenv("VONDRAL_TEST_MINUTE", "30", 1);
    std::thread server([&peer] {
        for (int piece = 0; piece < 16; ++piece) {
            ::usleep(75000); // two and a half minutes
            piece < 8 ? peer.Send("150 coming\r\n") : peer.SendData("x");
        }
        peer.EndData();
        peer.Send("226 done\r\n");
    });
    peer.control.data->options.verbosity = 4;
    Capture capture;
    EXPECT_EQ(peer.Retrieve(), 0);
    server.join();
    EXPECT_THAT(capture.Take(), testing::HasSubstr("\nvondral[socket.cpp]: No data read for callback\n"));
    EXPECT_EQ(peer.collector.bytes, std::string(8, 'x'));
}

TEST(Transfer, AResetDownloadIsReportedAndEndsTheSession) {
    DataPeer peer("150 coming\r\n426 gone\r\n");
    EXPECT_EQ(::write(peer.control.data->socket.Get(), "x", 1), 1); // never read, so that the peer's close is a reset
    peer.data_server.Reset();
    Capture capture;
    EXPECT_EQ(peer.Retrieve(), -1);
    EXPECT_THAT(capture.Take(), testing::StartsWith("vondral[socket.cpp]: read(:0): Connection reset by peer\n"));
    EXPECT_FALSE(peer.control.socket.IsOpen());
}

// Data without an end, supplied or forwarded.
int Supply(void*, std::span<char> room, std::string_view& data) {
    data = {room.data(), room.size()};
    return 0;
}
ssize_t Forward(void*, int socket) {
    static const Descriptor zeros(::memfd_create("zeros", 0));
    EXPECT_EQ(::ftruncate(zeros.Get(), 65536), 0);
    return SendFile(socket, zeros.Get(), 0, 65536);
}
constexpr Transfer Endless[] = {{.send = Supply}, {.send = Supply, .forward = Forward}};

// A reader that pauses is waited for, not given up.
TEST(Transfer, AnUploadWaitsForASlowReader) {
    int pieces = 0; // left to send
    const auto supply = [](void* argument, std::span<char> room, std::string_view& data) {
        data = --*static_cast<int*>(argument) >= 0 ? std::string_view(room.data(), room.size()) : "";
        return 0;
    };
    const auto forward = [](void* argument, int socket) -> ssize_t {
        const ssize_t count = *static_cast<int*>(argument) > 0 ? Forward(nullptr, socket) : 0;
        *static_cast<int*>(argument) -= count > 0 ? 1 : 0;
        return count;
    };
    for (const Transfer& upload : {Transfer{.send = supply, .argument = &pieces},
                                   Transfer{.send = supply, .forward = forward, .argument = &pieces}}) {
        DataPeer peer("150 go on\r\n");
        ::setenv("VONDRAL_TEST_MINUTE", "60000", 1);
        pieces = 40;
        std::thread server([&peer] {
            std::array<char, 65536> bytes;
            do
                ::usleep(1000);
            while (::read(peer.data_server.Get(), bytes.data(), bytes.size()) > 0);
            peer.Send("226 done\r\n");
        });
        EXPECT_EQ(SendCommand(&peer.control, "STOR x", {}, upload), 0);
        server.join();
    }
}

// A peer that has gone is a failed write, not a signal.
TEST(Transfer, AGoneReaderIsNoSignal) {
    std::signal(SIGPIPE, SIG_DFL);
    Peer peer;
    peer.server.Reset();
    EXPECT_EQ(SendCommand(&peer.control, "NOOP"), -1);
    for (const Transfer& upload : Endless) {
        DataPeer other("150 coming\r\n426 gone\r\n");
        other.data_server.Reset();
        Capture capture;
        EXPECT_NE(SendCommand(&other.control, "STOR x", {}, upload), 0);
        EXPECT_THAT(capture.Take(), testing::StartsWith("vondral[socket.cpp]: write(:0): Broken pipe\n"
                                                        "vondral[socket.cpp]: we didn't send everything\n"));
    }
}

TEST(Transfer, SilenceBeforeTheFirstReplyClosesBothConnections) {
    DataPeer peer;
    peer.SetTimeout(2);
    Capture capture;
    EXPECT_EQ(peer.Retrieve(), -1);
    EXPECT_EQ(capture.Take(), "vondral[socket.cpp]: poll(): timedout after 60.00s (60.00s)\n"
                              "vondral[socket.cpp]: poll(): timedout after 60.00s (120.00s)\n");
    EXPECT_FALSE(peer.control.socket.IsOpen() || peer.control.data->socket.IsOpen());
}

TEST(Transfer, OneSilentMinuteAbortsAnUpload) {
    for (const Transfer& upload : Endless) {
        DataPeer peer("150 go on\r\n");
        peer.Send("426 no data\r\n");
        Capture capture;
        const int result = SendCommand(&peer.control, "STOR x", {}, upload);
        EXPECT_EQ(capture.Take(), "vondral[socket.cpp]: poll(): timedout on data write after 60.00s\n"
                                  "vondral[socket.cpp]: we didn't send everything\n");
        EXPECT_EQ(result, 1);
        EXPECT_FALSE(peer.control.data->socket.IsOpen());
    }
}

// The last byte of what is sent with MSG_OOB is urgent.
TEST(Connections, UrgentBytesAreDataLikeAnyOther) {
    const Listener listener, data_listener;
    std::thread server([&] {
        const Descriptor control = listener.Accept();
        const auto await_command = [&control] {
            char byte;
            do
                ASSERT_EQ(::read(control.Get(), &byte, 1), 1);
            while (byte != '\n');
        };
        Write(control, "220 ready\r\n");
        await_command();
        const int port = data_listener.Port();
        Write(control, FormatText("227 (127,0,0,1,%d,%d)\r\n", port / 256, port % 256));
        const Descriptor data = data_listener.Accept();
        await_command();
        Write(data, "data", MSG_OOB);
        ::shutdown(data.Get(), SHUT_WR);
        Write(control, "550 gon", MSG_OOB);
        Write(control, "e\r\n");
    });
    ::setenv("VONDRAL_TEST_MINUTE", "60000", 1);
    ::setenv("VONDRAL_TEST_PORT", std::to_string(listener.Port()).c_str(), 1);
    const auto control = OpenConnections("127.0.0.1", "ftp", {}, {});
    ASSERT_NE(control, nullptr);
    Collector collector;
    std::array<char, 32> reply{};
    EXPECT_EQ(SendCommand(control.get(), "RETR x", reply, {.receive = Collector::Take, .argument = &collector}), 1);
    EXPECT_EQ(collector.bytes + reply.data(), "data550 gone");
    server.join();
}

TEST(Pasv, AddressesAndPortsOfReplies) {
    const char* const refused = "connect(, 127.0.0.1:1): Connection refused"; // a connection was tried
    for (const auto& [reply, message] :
         {std::pair("200 Entering (127,0,0,1,0,1)", "bad PASV response"),
          {"227 no digits", "PASV response without address"},
          {"227 (127,0,0,1,0)", "PASV response port invalid"},
          {"227 (127,0,0,1)", "PASV response address invalid"},
          {"227 (127,0,0,1,x,1)", "PASV response port invalid"},
          {"227 (127,0,0,1,1,x)", "PASV response port invalid"},
          {"227 (300,0,0,1,1,1)", "PASV response address invalid"},
          {"227 (127,0,0,111111111111111111111111111111,1,1)", "PASV response address invalid"},
          {"227 Entering Passive Mode (127,0,0,1,0,1).", refused},
          {"227 =127,0,0,1,256,1", refused}}) {
        Peer peer;
        peer.Send(std::string(reply) + "\r\n");
        Capture capture;
        EXPECT_EQ(peer.Retrieve(), -1);
        EXPECT_EQ(capture.Take(), FormatText("vondral[socket.cpp]: %s\nvondral[socket.cpp]: can't connect data port\n"
                                             "vondral[socket.cpp]: PASV command failed\n",
                                             message));
    }
}

TEST(Lookup, NamesAnUnknownProtocol) {
    int protocol = -1;
    EXPECT_TRUE(LookUpProtocol("tcp", protocol).empty() && protocol == IPPROTO_TCP);
    EXPECT_EQ(LookUpProtocol("none", protocol), "getprotobyname(none)");
}

} // namespace
