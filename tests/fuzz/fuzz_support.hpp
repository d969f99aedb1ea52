// What the fuzz targets share: a check that aborts with a message (libFuzzer then keeps the
// input), and the strict round trip that every text the library writes must survive.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "pelora/core/json.hpp"

namespace pelora::fuzz {

[[noreturn]] inline void failed(const char* what, const std::string& detail) {
  std::fprintf(stderr, "fuzz check failed: %s\n%s\n", what, detail.c_str());
  std::abort();
}

#define PELORA_FUZZ_CHECK(condition, detail)                        \
  do {                                                              \
    if (!(condition)) ::pelora::fuzz::failed(#condition, (detail)); \
  } while (false)

// `text` was written by the library: the strict reader must take it, and the value it reads must
// survive being written and read once more.
inline JSON readBackWritten(const std::string& text) {
  JSON value;
  try {
    value = JSON::parse(text);
  } catch (const std::exception& error) {
    failed("the library wrote text its own reader refuses",
           error.what() + std::string("\n") + text);
  }
  PELORA_FUZZ_CHECK(JSON::parse(value.toString()) == value, text);
  return value;
}

}  // namespace pelora::fuzz
