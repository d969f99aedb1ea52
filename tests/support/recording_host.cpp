// A host that records events until it is killed, for the crash tests. It keeps its files under
// DATA_DIR and never uploads; after each trackBash returns it writes the event's sequence number
// and a newline to standard output, unbuffered, so the test knows what was recorded.
//
// usage: pelora_recording_host DATA_DIR WRITE_KEY
#include <unistd.h>

#include <cstdint>
#include <iostream>
#include <string>

#include <pelora/pelora.hpp>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: pelora_recording_host DATA_DIR WRITE_KEY\n";
    return 2;
  }
  const std::string data = argv[1];
  auto configuration = std::make_shared<pelora::Configuration>(argv[2], std::nullopt, false);
  configuration->flushAt(INT64_MAX).flushInterval(3600).paths(
      {data + "/Documents", data + "/config"});
  auto analytics = pelora::PeloraAnalytics::create(configuration);
  for (std::int64_t sequence = 0;; ++sequence) {
    analytics->trackBash("Recorded",
                         pelora::Dictionary{{"seq", sequence}, {"padding", std::string(300, 'x')}});
    const std::string line = std::to_string(sequence) + "\n";
    if (::write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      return 1;  // the test has gone
    }
  }
}
