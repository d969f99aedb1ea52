// GzipReader: a file read as a gzip stream, compressed piece by piece as it is read, so that an
// upload sends the batch compressed without a compressed copy on disk or whole in memory.
// Internal to the HTTP session; one thread at a time.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>

namespace pelora::platform {

class GzipReader {
 public:
  // Reads from `fd` (not owned) from its current offset. Throws std::bad_alloc when zlib cannot
  // get its state.
  explicit GzipReader(int fd);
  ~GzipReader();
  GzipReader(const GzipReader&) = delete;
  GzipReader& operator=(const GzipReader&) = delete;

  // Fills `out` with up to `size` bytes of the gzip stream; 0 once it has all been read, nothing
  // when the file could not be read or zlib failed.
  std::optional<std::size_t> read(char* out, std::size_t size) noexcept;
  // Starts the stream again from the file's first byte; false when the file cannot seek.
  bool rewind() noexcept;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace pelora::platform
