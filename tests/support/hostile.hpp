// What the hostile-service tests share: a plain-http listener that counts whatever reaches it (so
// that a test can prove nothing went out in clear), the heap this process holds and its peak while
// a test runs, and compressed answers that inflate far past their size.
#pragma once

#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/support/loopback.hpp"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define PELORA_TEST_SANITIZER_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define PELORA_TEST_SANITIZER_HEAP 1
#endif
#endif
#ifdef PELORA_TEST_SANITIZER_HEAP
// The sanitizers' allocator keeps the count (their header does not come with every compiler).
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace pelora::test {

// Bytes the process has allocated and not freed (every thread's, libcurl's and OpenSSL's too).
inline std::size_t heapInUse() {
#ifdef PELORA_TEST_SANITIZER_HEAP
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 info = ::mallinfo2();
  return info.uordblks + info.hblkhd;
#endif
}

// Samples heapInUse() every few milliseconds from construction on; peakGrowth() is the most it
// rose above where it stood at the start.
class HeapWatch {
 public:
  HeapWatch() : start_(heapInUse()), peak_(start_) {
    thread_ = std::thread([this] {
      while (!done_.load()) {
        const std::size_t now = heapInUse();
        std::size_t seen = peak_.load();
        while (now > seen && !peak_.compare_exchange_weak(seen, now)) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
    });
  }
  ~HeapWatch() {
    done_ = true;
    thread_.join();
  }
  HeapWatch(const HeapWatch&) = delete;
  HeapWatch& operator=(const HeapWatch&) = delete;

  std::size_t peakGrowth() const {
    const std::size_t peak = std::max(peak_.load(), heapInUse());
    return peak > start_ ? peak - start_ : 0;
  }

 private:
  const std::size_t start_;
  std::atomic<std::size_t> peak_;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

// A gzip stream of `decoded` zero bytes: about a thousandth of that on the wire.
inline std::string gzipOfZeros(std::size_t decoded) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, 15 + 16, 9, Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::runtime_error("deflateInit2");
  static const std::string zeros(1 << 20, '\0');
  std::string out;
  char buffer[1 << 16];
  std::size_t left = decoded;
  int flush = Z_NO_FLUSH;
  do {
    const std::size_t take = std::min(left, zeros.size());
    left -= take;
    flush = left == 0 ? Z_FINISH : Z_NO_FLUSH;
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(zeros.data()));
    stream.avail_in = static_cast<uInt>(take);
    do {
      stream.next_out = reinterpret_cast<Bytef*>(buffer);
      stream.avail_out = sizeof buffer;
      deflate(&stream, flush);
      out.append(buffer, sizeof buffer - stream.avail_out);
    } while (stream.avail_out == 0);
  } while (flush != Z_FINISH);
  deflateEnd(&stream);
  return out;
}

// A TCP listener on 127.0.0.1 that takes every connection and counts it and the bytes it sent,
// then closes it: the plain-http end of a redirect, which nothing of ours may ever reach.
class PlainListener {
 public:
  PlainListener() {
    listener_ = listenOnLoopback(port_, "PlainListener");
    thread_ = std::thread([this] {
      for (;;) {
        const int connection = ::accept(listener_, nullptr, nullptr);
        if (connection < 0) return;
        ++connections_;
        timeval wait{0, 200'000};
        ::setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
        char buffer[4096];
        for (ssize_t n; (n = ::recv(connection, buffer, sizeof buffer, 0)) > 0;) bytes_ += n;
        ::close(connection);
        ++closed_;
      }
    });
  }
  ~PlainListener() {
    ::shutdown(listener_, SHUT_RDWR);  // ends the accept()
    thread_.join();
    ::close(listener_);
  }
  PlainListener(const PlainListener&) = delete;
  PlainListener& operator=(const PlainListener&) = delete;

  int port() const noexcept { return port_; }
  std::string url(const std::string& path = "/") const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  int connections() const noexcept { return connections_.load(); }
  // Connections the other end has closed (or that went quiet), their bytes all counted.
  int closedConnections() const noexcept { return closed_.load(); }
  long long bytesReceived() const noexcept { return bytes_.load(); }

 private:
  int listener_ = -1;
  int port_ = 0;
  std::atomic<int> connections_{0};
  std::atomic<int> closed_{0};
  std::atomic<long long> bytes_{0};
  std::thread thread_;
};

}  // namespace pelora::test
