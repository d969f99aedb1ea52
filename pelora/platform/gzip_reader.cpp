#include "pelora/platform/gzip_reader.hpp"

#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>

namespace pelora::platform {
namespace {

// Batches are repetitive JSON text: the fastest level already takes 93 % off a full batch, and
// level 6 (the default) would save 5 % of the original more for twice the CPU (bench/RESULTS.md).
constexpr int kLevel = 1;
constexpr int kGzipWindowBits = 15 + 16;  // 32 KiB window, gzip header and trailer
constexpr int kMemoryLevel = 8;

}  // namespace

struct GzipReader::State {
  int fd = -1;
  z_stream stream{};
  std::array<unsigned char, 16 * 1024> input{};
  bool endOfFile = false;
  bool finished = false;
};

GzipReader::GzipReader(int fd) : state_(std::make_unique<State>()) {
  state_->fd = fd;
  if (deflateInit2(&state_->stream, kLevel, Z_DEFLATED, kGzipWindowBits, kMemoryLevel,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    throw std::bad_alloc();
  }
}

GzipReader::~GzipReader() {
  deflateEnd(&state_->stream);
}

std::optional<std::size_t> GzipReader::read(char* out, std::size_t size) noexcept {
  State& s = *state_;
  z_stream& z = s.stream;
  // zlib counts in 32 bits; curl asks for a few KiB at a time anyway.
  const auto room = static_cast<uInt>(std::min<std::size_t>(size, 1u << 30));
  z.next_out = reinterpret_cast<Bytef*>(out);
  z.avail_out = room;
  // Never returns 0 before the stream's end: to curl, 0 is the end of the body.
  while (z.avail_out > 0 && !s.finished) {
    if (z.avail_in == 0 && !s.endOfFile) {
      const ssize_t n = ::read(s.fd, s.input.data(), s.input.size());
      if (n < 0) {
        if (errno == EINTR) continue;
        return std::nullopt;
      }
      s.endOfFile = n == 0;
      z.next_in = s.input.data();
      z.avail_in = static_cast<uInt>(n);
    }
    const int result = deflate(&z, s.endOfFile ? Z_FINISH : Z_NO_FLUSH);
    if (result == Z_STREAM_END) {
      s.finished = true;
    } else if (result != Z_OK && result != Z_BUF_ERROR) {
      return std::nullopt;
    }
  }
  return room - z.avail_out;
}

bool GzipReader::rewind() noexcept {
  State& s = *state_;
  if (::lseek(s.fd, 0, SEEK_SET) != 0 || deflateReset(&s.stream) != Z_OK) return false;
  s.stream.avail_in = 0;
  s.endOfFile = false;
  s.finished = false;
  return true;
}

}  // namespace pelora::platform
