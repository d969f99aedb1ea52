// Identifiers: random UUIDs for message ids and the stable device id that stands in for a phone's
// identifier-for-vendor. Both come from libuuid; safe on any thread. The device id reads the
// machine id once per process.
#pragma once

#include <string>
#include <string_view>

namespace pelora::platform {

// A new random (version 4) UUID, upper-case hyphenated: "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
std::string uuidString();

// A name-based (version 5) UUID from this machine's id and `applicationId`, upper case: the same
// for one application on one machine across runs, different per application. Without a readable
// machine id it is random, stable only for the life of the process.
std::string deviceIdentifier(std::string_view applicationId);

}  // namespace pelora::platform
