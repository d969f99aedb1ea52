// How the library reads an HTTP status, in one place for every request it makes.
#pragma once

#include <string>

namespace pelora::platform {

// 1-299 accepted, 300-399 unexpected (redirects are not followed), 429 a rate limit, anything
// else a refusal.
enum class StatusKind { accepted, unexpected, limited, rejected };

StatusKind statusKind(int status) noexcept;

// What the library says about a status that is not accepted, without a final stop: "Server
// responded with unexpected HTTP code 302", "Server limited client with response code 429",
// "Server rejected payload with HTTP code 500". Empty for an accepted one.
std::string statusComplaint(int status);

}  // namespace pelora::platform
