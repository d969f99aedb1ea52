// Any bytes as an event or settings document: decoding either fails with an exception or gives a
// record whose encoding decodes back to the same record.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "pelora/core/events.hpp"
#include "pelora/state/settings.hpp"
#include "tests/fuzz/fuzz_support.hpp"

namespace {

template <class Record>
void roundTrip(const pelora::JSON& json) {
  Record record;
  try {
    record = pelora::decodeValue<Record>(json);
  } catch (const std::exception&) {
    return;
  }
  const std::string text = pelora::toString(record);
  PELORA_FUZZ_CHECK(!text.empty(), json.toString());
  PELORA_FUZZ_CHECK(pelora::decodeValue<Record>(pelora::fuzz::readBackWritten(text)) == record,
                    text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  pelora::JSON json;
  try {
    json = pelora::JSON::parse(std::string_view(reinterpret_cast<const char*>(data), size));
  } catch (const pelora::DecodingError&) {
    return 0;
  }
  roundTrip<pelora::TrackEvent>(json);
  roundTrip<pelora::MonitorEvent>(json);
  roundTrip<pelora::Settings>(json);
  roundTrip<pelora::DestinationMetadata>(json);
  return 0;
}
