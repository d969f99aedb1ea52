// Any bytes into the JSON reader: it either refuses them with DecodingError or gives a value that
// writes out as text which reads back as the same value, compact and pretty alike.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tests/fuzz/fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace pelora;
  JSON value;
  try {
    value = JSON::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const DecodingError&) {
    return 0;
  }
  // A value's own text is canonical (keys in order, numbers without exponents): writing what it
  // reads gives back the very same bytes.
  const std::string text = value.toString();
  const JSON read = fuzz::readBackWritten(text);
  PELORA_FUZZ_CHECK(read == value, text);
  PELORA_FUZZ_CHECK(read.toString() == text, text);
  const std::string pretty = value.prettyPrint();
  PELORA_FUZZ_CHECK(JSON::parse(pretty) == value, pretty);
  PELORA_FUZZ_CHECK(!value.nestedDeeperThan(JSON::maxNestingDepth), text);
  return 0;
}
