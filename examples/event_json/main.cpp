// Builds a configuration and a few events and prints their JSON: what the library will store and
// upload for them.
#include <iostream>

#include <pelora/pelora.hpp>

int main() {
  auto configuration = std::make_shared<pelora::Configuration>("demo-write-key", std::nullopt);
  configuration->flushAt(10).flushInterval(15.0).peloraAppPushID("demo-push-app");

  const auto& values = configuration->values;
  std::cout << "Configuration: writeKey=" << values.writeKey << " apiHost=" << values.apiHost
            << " flushAt=" << values.flushAt << " flushInterval=" << values.flushInterval << "\n";
  std::cout << "Settings: " << pelora::toString(pelora::Settings(values.writeKey, values.apiHost))
            << "\n\n";

  pelora::TrackEvent signedUp("Signed Up",
                              pelora::JSON(pelora::Dictionary{
                                  {"plan", std::string("pro")},
                                  {"seats", 5},
                                  {"price", pelora::Decimal::parse("19.90").value()},
                                  {"trial", false},
                                  {"tags", pelora::Array{std::string("beta"), std::string("web")}},
                              }));
  signedUp.messageId = "0D3F6E1C-8B52-4C59-9F0A-2B8F4E6A7C11";
  signedUp.timestamp = "2026-11-22T08:09:10.123Z";
  std::cout << "Track event:\n" << pelora::prettyPrint(signedUp) << "\n\n";

  pelora::MonitorEvent login(
      pelora::JSON(pelora::Dictionary{{"email", std::string("a@b.example")}}), "login",
      pelora::JSON(pelora::Dictionary{{"platform", "iOS"}}), std::nullopt);
  std::cout << "Monitor event:\n" << pelora::toString(login) << "\n\n";

  auto decoded = pelora::decodeFromString<pelora::TrackEvent>(pelora::toString(signedUp));
  std::cout << "Decoded back: event=" << decoded.event
            << " seats=" << decoded.properties->value<std::int64_t>("seats").value_or(-1) << "\n";
  return 0;
}
