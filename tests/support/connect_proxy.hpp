// ConnectProxy: a small HTTP proxy on 127.0.0.1 that understands CONNECT only, as a corporate proxy
// in front of the tracking service does for HTTPS. Every tunnel goes to one upstream port on
// 127.0.0.1 (the local collector), whatever host it names, so that clients can use the service's
// real host names without a connect-to entry. It counts tunnels by the "host:port" asked for and
// the bytes carried each way. Thread-safe; stop() (or the destructor) ends every tunnel and joins.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/loopback.hpp"

namespace pelora::test {

class ConnectProxy {
 public:
  explicit ConnectProxy(int upstreamPort) : upstreamPort_(upstreamPort) {
    listener_ = listenOnLoopback(port_, "ConnectProxy");
    acceptor_ = std::thread([this] { acceptLoop(); });
  }
  ~ConnectProxy() { stop(); }
  ConnectProxy(const ConnectProxy&) = delete;
  ConnectProxy& operator=(const ConnectProxy&) = delete;

  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

  // Tunnels opened, by the "host:port" their CONNECT named.
  std::map<std::string, int> tunnels() const {
    std::lock_guard lock(mutex_);
    return tunnels_;
  }
  // Bytes carried from clients to the upstream, and back.
  std::uint64_t bytesUp() const { return up_.load(); }
  std::uint64_t bytesDown() const { return down_.load(); }
  // Requests that were not a CONNECT (answered 405, nothing forwarded).
  int refused() const { return refused_.load(); }

  void stop() {
    if (stopping_.exchange(true)) return;
    ::shutdown(listener_, SHUT_RDWR);
    if (acceptor_.joinable()) acceptor_.join();
    std::vector<std::thread> threads;
    {
      std::lock_guard lock(mutex_);
      for (int socket : open_) ::shutdown(socket, SHUT_RDWR);
      threads.swap(threads_);
    }
    for (auto& thread : threads) thread.join();
    ::close(listener_);
  }

 private:
  void acceptLoop() {
    for (;;) {
      const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) {
        if (stopping_) return;
        continue;
      }
      std::lock_guard lock(mutex_);
      if (stopping_) {
        ::close(client);
        return;
      }
      open_.push_back(client);
      threads_.emplace_back([this, client] { serve(client); });
    }
  }

  void serve(int client) {
    std::string head;
    char buffer[16384];
    while (head.find("\r\n\r\n") == std::string::npos && head.size() < 8192) {
      const ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
      if (n <= 0) return forget(client);
      head.append(buffer, static_cast<std::size_t>(n));
    }
    const auto end = head.find("\r\n\r\n");
    if (end == std::string::npos || head.rfind("CONNECT ", 0) != 0) {
      ++refused_;
      const std::string answer = "HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\n\r\n";
      (void)::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
      return forget(client);
    }
    const std::string target = head.substr(8, head.find(' ', 8) - 8);
    const int upstream = connectToLoopback(upstreamPort_);
    if (upstream < 0) {
      const std::string answer = "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n";
      (void)::send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
      return forget(client);
    }
    {
      std::lock_guard lock(mutex_);
      ++tunnels_[target];
      open_.push_back(upstream);
    }
    const std::string established = "HTTP/1.1 200 Connection established\r\n\r\n";
    bool ok = ::send(client, established.data(), established.size(), MSG_NOSIGNAL) ==
              static_cast<ssize_t>(established.size());
    // Bytes the client sent right after its CONNECT belong to the tunnel.
    const std::string early = head.substr(end + 4);
    if (ok && !early.empty()) {
      ok = ::send(upstream, early.data(), early.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(early.size());
      up_ += early.size();
    }
    while (ok) {
      pollfd both[2] = {{client, POLLIN, 0}, {upstream, POLLIN, 0}};
      if (::poll(both, 2, -1) < 0) break;
      for (int i = 0; i < 2 && ok; ++i) {
        if (!both[i].revents) continue;
        const ssize_t n = ::recv(both[i].fd, buffer, sizeof buffer, 0);
        if (n <= 0) {
          ok = false;
          break;
        }
        const int to = i == 0 ? upstream : client;
        ok = ::send(to, buffer, static_cast<std::size_t>(n), MSG_NOSIGNAL) == n;
        (i == 0 ? up_ : down_) += static_cast<std::uint64_t>(n);
      }
    }
    forget(upstream);
    forget(client);
  }

  void forget(int socket) {
    std::lock_guard lock(mutex_);
    std::erase(open_, socket);
    ::close(socket);
  }

  const int upstreamPort_;
  int listener_ = -1;
  int port_ = 0;
  std::thread acceptor_;
  std::atomic<bool> stopping_{false};
  std::atomic<std::uint64_t> up_{0};
  std::atomic<std::uint64_t> down_{0};
  std::atomic<int> refused_{0};
  mutable std::mutex mutex_;
  std::map<std::string, int> tunnels_;
  std::vector<int> open_;  // sockets stop() shuts down
  std::vector<std::thread> threads_;
};

}  // namespace pelora::test
