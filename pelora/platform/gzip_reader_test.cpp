#include "pelora/platform/gzip_reader.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <fstream>
#include <random>
#include <string>

#include "tests/support/temp_directory.hpp"

namespace pelora::platform {
namespace {

// The text a gzip stream inflates to; fails the test when it is not one whole gzip stream.
std::string gunzip(const std::string& compressed) {
  z_stream z{};
  EXPECT_EQ(inflateInit2(&z, 15 + 16), Z_OK);
  std::string out;
  char buffer[65536];
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(compressed.data()));
  z.avail_in = static_cast<uInt>(compressed.size());
  int result = Z_OK;
  while (result == Z_OK) {
    z.next_out = reinterpret_cast<Bytef*>(buffer);
    z.avail_out = sizeof buffer;
    result = inflate(&z, Z_NO_FLUSH);
    out.append(buffer, sizeof buffer - z.avail_out);
  }
  EXPECT_EQ(result, Z_STREAM_END);
  EXPECT_EQ(z.avail_in, 0u);  // nothing after the stream
  inflateEnd(&z);
  return out;
}

// Everything the reader gives, `piece` bytes at a time, until it says the stream ended.
std::string readAll(GzipReader& reader, std::size_t piece) {
  std::string out;
  std::string buffer(piece, '\0');
  for (;;) {
    const auto n = reader.read(buffer.data(), piece);
    EXPECT_TRUE(n);
    if (!n || *n == 0) return out;
    out.append(buffer, 0, *n);
  }
}

class GzipReaderTest : public ::testing::Test {
 protected:
  int open(const std::string& text) {
    const auto path = directory.path() / "batch";
    std::ofstream(path, std::ios::binary) << text;
    fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    return fd;
  }
  ~GzipReaderTest() override {
    if (fd >= 0) ::close(fd);
  }

  test::TempDirectory directory;
  int fd = -1;
};

// Whatever the size curl asks for (down to a byte), the pieces make one gzip stream of the file,
// across many of the reader's own input buffers; an empty file is an empty stream.
TEST_F(GzipReaderTest, PiecesOfAnySizeMakeOneStreamOfTheWholeFile) {
  std::mt19937 random(7);
  std::string text = "{ \"batch\": [";
  while (text.size() < 300'000) {
    text += "{\"event\":\"Viewed\",\"n\":" + std::to_string(random()) + "},";
  }
  text += "{}]}";
  for (const std::size_t piece : {std::size_t{1}, std::size_t{7}, std::size_t{16384}}) {
    GzipReader reader(open(text));
    const std::string compressed = readAll(reader, piece);
    EXPECT_LT(compressed.size(), text.size() / 2) << piece;
    EXPECT_EQ(gunzip(compressed), text) << piece;
    ::close(fd);
    fd = -1;
  }
  GzipReader empty(open(""));
  EXPECT_EQ(gunzip(readAll(empty, 100)), "");
}

// curl rewinds a body it must send again (a fresh connection): the stream starts over whole.
TEST_F(GzipReaderTest, RewindStartsTheSameStreamAgainAndAnUnreadableFileFails) {
  const std::string text(100'000, 'x');
  GzipReader reader(open(text));
  const std::string whole = readAll(reader, 4096);
  ASSERT_TRUE(reader.rewind());
  char some[10];
  ASSERT_TRUE(reader.read(some, sizeof some));
  ASSERT_TRUE(reader.rewind());
  EXPECT_EQ(readAll(reader, 333), whole);

  GzipReader broken(-1);
  char buffer[64];
  EXPECT_FALSE(broken.read(buffer, sizeof buffer));
  EXPECT_FALSE(broken.rewind());
}

}  // namespace
}  // namespace pelora::platform
