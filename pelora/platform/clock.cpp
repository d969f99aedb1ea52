#include "pelora/platform/clock.hpp"

#include <cstdio>
#include <ctime>

namespace pelora::platform {

std::string iso8601(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  // floor, not truncation toward zero: 1 ms before the epoch is 23:59:59.999 of the day before.
  const auto millis = floor<milliseconds>(time);
  const auto seconds = floor<std::chrono::seconds>(millis);
  const std::time_t whole = system_clock::to_time_t(seconds);
  std::tm utc{};
  if (::gmtime_r(&whole, &utc) == nullptr) return {};
  char text[48];
  const int length =
      std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900,
                    utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                    static_cast<int>((millis - seconds).count()));
  if (length <= 0 || static_cast<std::size_t>(length) >= sizeof text) return {};
  return std::string(text, static_cast<std::size_t>(length));
}

std::string iso8601Now() {
  return iso8601(std::chrono::system_clock::now());
}

}  // namespace pelora::platform
