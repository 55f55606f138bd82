// Looking up hosts, services and protocols. Silent: what fails is returned as the text of a message. Any thread may
// call; the answers of the C library come from static storage, so one look-up is made at a time.

#pragma once

#include <string>

#include <netinet/in.h>

// Sets the address (IPv4) of `host`, the TCP port of `service`, and the number of the service's protocol. Returns an
// empty text, or what failed.
std::string LookUpServer(const char* host, const char* service, sockaddr_in& address, int& protocol);

// Sets the number of a protocol by its name. Returns an empty text, or what failed.
std::string LookUpProtocol(const char* name, int& protocol);
