// A document and a key path from the input: the lookup must end within its step budget (run with
// -timeout to catch a slow one) and never crash, whatever "@path" and "@if" values refer to.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tests/fuzz/fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace pelora;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  // "<path>\n<document>"
  const auto newline = input.find('\n');
  if (newline == std::string_view::npos) return 0;
  JSON document;
  try {
    document = JSON::parse(input.substr(newline + 1));
  } catch (const DecodingError&) {
    return 0;
  }
  const std::string path(input.substr(0, newline));
  (void)document.value<std::any>(path);
  (void)document.value<std::string>(path);
  if (auto dictionary = document.dictionaryValue()) {
    (void)valueForKeyPath(*dictionary, path);
    JSON written = document;
    written.setValue(std::string("x"), path);
    if (!path.empty() && written != document) {
      (void)fuzz::readBackWritten(written.toString());
    }
  }
  return 0;
}
