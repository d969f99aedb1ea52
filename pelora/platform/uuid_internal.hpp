// The pieces behind deviceIdentifier(), open to tests: reading a machine id file and deriving the
// name-based UUID from it. Pure functions apart from the file reads; safe on any thread.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pelora::platform::detail {

// The first line of the first file in `files` that is readable and not blank, without surrounding
// white space.
std::optional<std::string> readMachineId(const std::vector<std::filesystem::path>& files);

// `uuid` as 36 upper-case characters with dashes ("0B9E2C41-5D6F-4A8B-8C7D-1E2F3A4B5C6D").
std::string unparseUpper(const unsigned char (&uuid)[16]);

// The version 5 UUID under our namespace for the name "<machineId>\n<applicationId>", upper case.
std::string deviceIdentifier(std::string_view machineId, std::string_view applicationId);

}  // namespace pelora::platform::detail
