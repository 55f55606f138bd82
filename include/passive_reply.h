// The server's answer to PASV, such as "227 Entering Passive Mode (10,20,144,151,62,141).": pure text work, any thread.

#pragma once

#include <array>
#include <string>

#include <netinet/in.h>

struct PassiveAddress {
    sockaddr_in address{};
    std::array<char, INET_ADDRSTRLEN + 1> text{}; // of the IP address, with a terminator
};

// Reads "h1,h2,h3,h4,p1,p2", which starts at the first digit that is not 0. Returns an empty text, or what is wrong
// with the reply; of the address only what precedes the fault is then set.
std::string ParsePassiveReply(const char* reply, PassiveAddress& passive);
