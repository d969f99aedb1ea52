// Any bytes as number text: Decimal::parse either refuses them or holds their exact value, which
// prints as text that parses back to the same value and converts to the double that strtod reads.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tests/fuzz/fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace pelora;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto decimal = Decimal::parse(text);
  if (!decimal) return 0;
  const std::string printed = decimal->toString();
  PELORA_FUZZ_CHECK(printed.size() <= Decimal::maxTextLength, printed);
  PELORA_FUZZ_CHECK(Decimal::parse(printed) == decimal, text + " printed as " + printed);
  PELORA_FUZZ_CHECK(decimal->doubleValue() == std::strtod(text.c_str(), nullptr), text);
  // Inside JSON the same number survives the reader and the writer.
  const JSON json = fuzz::readBackWritten("[" + printed + "]");
  PELORA_FUZZ_CHECK(json[0]->decimalValue() == decimal, text);
  return 0;
}
