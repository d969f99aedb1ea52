// Host dictionaries built from the input (any bytes in keys and strings, any numbers, any depth)
// go the way trackBash takes them: converted to JSON, completed into an event and written into
// batch text. Whatever is not refused on the way must give a batch that the strict reader takes,
// holding the same values (strings that were not UTF-8 come back with U+FFFD in their place).
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "pelora/core/events.hpp"
#include "tests/fuzz/fuzz_support.hpp"

namespace {

using namespace pelora;

bool allText = true;  // every string built so far is valid UTF-8

std::string text(FuzzedDataProvider& input) {
  std::string s = input.ConsumeRandomLengthString(64);
  if (!isValidUTF8(s)) allText = false;
  return s;
}

std::any value(FuzzedDataProvider& input, int depth);

Dictionary dictionary(FuzzedDataProvider& input, int depth) {
  Dictionary d;
  const int count = input.ConsumeIntegralInRange(0, 4);
  for (int i = 0; i < count && input.remaining_bytes() > 0; ++i)
    d[text(input)] = value(input, depth + 1);
  return d;
}

std::any value(FuzzedDataProvider& input, int depth) {
  // A long run of one choice nests deeper than any reader takes.
  switch (input.ConsumeIntegralInRange(0, 10)) {
    case 0:
      return input.ConsumeBool();
    case 1:
      return input.ConsumeIntegral<std::int64_t>();
    case 2:
      return input.ConsumeIntegral<std::uint64_t>();
    case 3:
      return input.ConsumeFloatingPoint<double>();
    case 4:
      return input.ConsumeFloatingPoint<float>();
    case 5:
      return Decimal::parse(input.ConsumeRandomLengthString(48)).value_or(Decimal(7));
    case 6:
      return Null{};
    case 7:
      return text(input);
    case 8:
      if (depth < 2000) {
        Array a;
        a.push_back(value(input, depth + 1));
        if (input.ConsumeBool()) a.push_back(value(input, depth + 1));
        return a;
      }
      return 0;
    default:
      if (depth < 2000) return dictionary(input, depth);
      return 0;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider input(data, size);
  allText = true;
  const Dictionary properties = dictionary(input, 1);
  std::optional<JSON> json;
  try {
    json = JSON(properties);
  } catch (const JSONError&) {
    return 0;  // refused: NaN, infinity or too deep
  }
  PELORA_FUZZ_CHECK(!json->nestedDeeperThan(JSON::maxNestingDepth), "converted too deep");
  if (json->nestedDeeperThan(maxEventValueDepth)) return 0;  // the client drops these

  TrackEvent event(text(input), json);
  event.messageId = "8E1A7C6B-0000-4000-8000-000000000000";
  event.context = JSON(JSON::Map{{text(input), JSON(text(input))}});
  std::string batch = "{ \"batch\": [";
  appendJSONText(batch, event, maxEventTextDepth);
  batch += "],\"sentAt\":\"2024-05-01T08:09:10.123Z\",\"writeKey\":" + toString(text(input)) + "}";
  const JSON read = fuzz::readBackWritten(batch);
  const JSON written = JSON::with(event);
  PELORA_FUZZ_CHECK(*read["batch"]->operator[](0) == written, batch);
  if (allText) PELORA_FUZZ_CHECK(written["properties"] == json, batch);
  return 0;
}
