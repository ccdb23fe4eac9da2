// The socket on which the service waits for clients.

#ifndef MASTER_LISTENING_SOCKET_H
#define MASTER_LISTENING_SOCKET_H

#include <string>

// Every address of this machine, IPv4 and IPv6.
inline constexpr const char* ALL_ADDRESSES = "::";

// Opens a socket that accepts connections to `address` (a name or a number) and `port`, where port 0 is a
// free one. Throws StartFailure, with nothing left open. The caller closes the socket.
int open_listening_socket(const std::string& address, int port);

// "ADDRESS:PORT" of a socket, an IPv6 address in brackets.
std::string socket_address(int socket);

#endif
