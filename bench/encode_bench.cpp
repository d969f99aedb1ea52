// Event encoding against a bare RapidJSON Writer writing the same keys and values: the ratio of
// BM_EncodeTrackEvent to BM_EncodeTrackEventBaseline is the figure (target: at most 1.5).
#include <benchmark/benchmark.h>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <pelora/pelora.hpp>

#include "bench/bench_support.hpp"

namespace {

using pelora::Dictionary;
using pelora::JSON;
using pelora::bench::hostProperties;

pelora::TrackEvent fullEvent() {
  pelora::TrackEvent event("Product Added", JSON(hostProperties()));
  event.anonymousId = "5D0C4F2A-6B3E-4C1D-9A8F-7E6D5C4B3A21";
  event.messageId = "A1B2C3D4-E5F6-4711-8899-AABBCCDDEEFF";
  event.userId = "user-8841";
  event.timestamp = "2026-11-22T08:09:10.123Z";
  event.context = JSON(Dictionary{{"library", Dictionary{{"name", std::string("pelora-cpp")},
                                                         {"version", std::string("1.0.0")}}}});
  event.integrations = JSON(JSON::Map{});
  event.metrics = std::vector<JSON>{JSON(Dictionary{{"name", std::string("m")}, {"value", 1}})};
  event._metadata = pelora::DestinationMetadata{};
  return event;
}

void BM_EncodeTrackEvent(benchmark::State& state) {
  const pelora::TrackEvent event = fullEvent();
  for (auto _ : state) {
    std::string text = pelora::toString(event);
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_EncodeTrackEvent);

// The same document, key for key, written by hand; numbers as their decimal text.
void BM_EncodeTrackEventBaseline(benchmark::State& state) {
  for (auto _ : state) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> w(buffer);
    w.StartObject();
    w.Key("type");
    w.String("track");
    w.Key("anonymousId");
    w.String("5D0C4F2A-6B3E-4C1D-9A8F-7E6D5C4B3A21");
    w.Key("messageId");
    w.String("A1B2C3D4-E5F6-4711-8899-AABBCCDDEEFF");
    w.Key("userId");
    w.String("user-8841");
    w.Key("timestamp");
    w.String("2026-11-22T08:09:10.123Z");
    w.Key("context");
    w.StartObject();
    w.Key("library");
    w.StartObject();
    w.Key("name");
    w.String("pelora-cpp");
    w.Key("version");
    w.String("1.0.0");
    w.EndObject();
    w.EndObject();
    w.Key("integrations");
    w.StartObject();
    w.EndObject();
    w.Key("metrics");
    w.StartArray();
    w.StartObject();
    w.Key("name");
    w.String("m");
    w.Key("value");
    w.Int64(1);
    w.EndObject();
    w.EndArray();
    w.Key("_metadata");
    w.StartObject();
    w.Key("bundled");
    w.StartArray();
    w.EndArray();
    w.Key("unbundled");
    w.StartArray();
    w.EndArray();
    w.Key("bundledIds");
    w.StartArray();
    w.EndArray();
    w.EndObject();
    w.Key("event");
    w.String("Product Added");
    w.Key("properties");
    w.StartObject();
    w.Key("category");
    w.String("outerwear");
    w.Key("discount");
    w.RawValue("0.15", 4, rapidjson::kNumberType);
    w.Key("gift");
    w.Bool(true);
    w.Key("price");
    w.RawValue("129.95", 6, rapidjson::kNumberType);
    w.Key("product");
    w.String("Rain jacket");
    w.Key("quantity");
    w.Int64(2);
    w.Key("shipping");
    w.StartObject();
    w.Key("days");
    w.Int64(2);
    w.Key("method");
    w.String("express");
    w.EndObject();
    w.Key("sku");
    w.String("RJ-2041-BLU-M");
    w.Key("stock");
    w.Int64(1840);
    w.Key("tags");
    w.StartArray();
    w.String("sale");
    w.String("new");
    w.Int64(7);
    w.EndArray();
    w.EndObject();
    w.EndObject();
    std::string text(buffer.GetString(), buffer.GetSize());
    benchmark::DoNotOptimize(text);
  }
}
BENCHMARK(BM_EncodeTrackEventBaseline);

void BM_JSONFromDictionary(benchmark::State& state) {
  const Dictionary properties = hostProperties();
  for (auto _ : state) {
    JSON json(properties);
    benchmark::DoNotOptimize(json);
  }
}
BENCHMARK(BM_JSONFromDictionary);

}  // namespace
