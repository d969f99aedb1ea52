#include "pelora/platform/http_status.hpp"

namespace pelora::platform {

StatusKind statusKind(int status) noexcept {
  if (status >= 1 && status <= 299) return StatusKind::accepted;
  if (status >= 300 && status <= 399) return StatusKind::unexpected;
  if (status == 429) return StatusKind::limited;
  return StatusKind::rejected;
}

std::string statusComplaint(int status) {
  const std::string code = std::to_string(status);
  switch (statusKind(status)) {
    case StatusKind::accepted:
      return {};
    case StatusKind::unexpected:
      return "Server responded with unexpected HTTP code " + code;
    case StatusKind::limited:
      return "Server limited client with response code " + code;
    case StatusKind::rejected:
      break;
  }
  return "Server rejected payload with HTTP code " + code;
}

}  // namespace pelora::platform
