// Plain TCP sockets on 127.0.0.1 for the tests' own small servers (a listener that counts what
// reaches it, a CONNECT proxy).
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace pelora::test {

// A socket listening on a free port of 127.0.0.1, whose number goes to `port`; throws
// std::runtime_error naming `who` when none can be had.
inline int listenOnLoopback(int& port, const std::string& who) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
      ::listen(listener, 64) != 0 ||
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    if (listener >= 0) ::close(listener);
    throw std::runtime_error(who + ": cannot listen on 127.0.0.1");
  }
  port = ntohs(address.sin_port);
  return listener;
}

// A socket connected to 127.0.0.1:`port`, or -1.
inline int connectToLoopback(int port) {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (socket >= 0 && ::connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0)
    return socket;
  if (socket >= 0) ::close(socket);
  return -1;
}

}  // namespace pelora::test
