#include "pelora/platform/clock.hpp"

namespace pelora::platform {
namespace {

// Writes `value` as exactly `width` decimal digits ending just before `end`.
void putDigits(char* end, unsigned value, int width) {
  for (int i = 0; i < width; ++i) {
    *--end = static_cast<char>('0' + value % 10);
    value /= 10;
  }
}

}  // namespace

// Every event carries one of these, so it is built digit by digit rather than through printf.
std::string iso8601(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  // floor, not truncation toward zero: 1 ms before the epoch is 23:59:59.999 of the day before.
  const auto millis = floor<milliseconds>(time);
  const auto day = floor<days>(millis);
  const year_month_day date{day};
  const int year = static_cast<int>(date.year());
  if (year < 0 || year > 9999) return {};
  const hh_mm_ss clock{millis - day};

  std::string text("0000-00-00T00:00:00.000Z");
  char* out = text.data();
  putDigits(out + 4, static_cast<unsigned>(year), 4);
  putDigits(out + 7, static_cast<unsigned>(date.month()), 2);
  putDigits(out + 10, static_cast<unsigned>(date.day()), 2);
  putDigits(out + 13, static_cast<unsigned>(clock.hours().count()), 2);
  putDigits(out + 16, static_cast<unsigned>(clock.minutes().count()), 2);
  putDigits(out + 19, static_cast<unsigned>(clock.seconds().count()), 2);
  putDigits(out + 23, static_cast<unsigned>(clock.subseconds().count()), 3);
  return text;
}

std::string iso8601Now() {
  return iso8601(std::chrono::system_clock::now());
}

}  // namespace pelora::platform
