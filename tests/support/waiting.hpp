// Waiting helpers for tests: never sleep a fixed time, wait for a condition with a deadline.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace pelora::test {

// Polls `condition` (for facts nothing notifies about) until it holds or `timeout` passes.
template <class Condition>
bool eventually(Condition condition,
                std::chrono::milliseconds timeout = std::chrono::milliseconds(10000)) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// A port on 127.0.0.1 that nothing listens on.
inline int closedPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

// Counts events from any thread and waits for a count with a deadline. add() notifies under the
// lock, so a waiter that has seen its count may destroy the counter at once.
class Counter {
 public:
  void add(int n = 1) {
    std::lock_guard lock(mutex_);
    value_ += n;
    changed_.notify_all();
  }
  bool waitFor(int target, std::chrono::milliseconds limit = std::chrono::milliseconds(10000)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return value_ >= target; });
  }
  int value() {
    std::lock_guard lock(mutex_);
    return value_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int value_ = 0;
};

// What completions were handed, shared with them so a failed test cannot leave them dangling.
template <class Result>
struct Calls {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<Result> results;

  void add(Result result) {
    std::lock_guard lock(mutex);
    results.push_back(std::move(result));
    changed.notify_all();
  }
  // The first result, once it has arrived.
  std::optional<Result> wait(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
    std::unique_lock lock(mutex);
    if (!changed.wait_for(lock, timeout, [&] { return !results.empty(); })) return std::nullopt;
    return results.front();
  }
  std::size_t count() {
    std::lock_guard lock(mutex);
    return results.size();
  }
};

}  // namespace pelora::test
