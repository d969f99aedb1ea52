#include "pelora/platform/uuid.hpp"

#include <pthread.h>
#include <sys/random.h>
#include <uuid/uuid.h>

#include <atomic>
#include <cstring>
#include <fstream>

#include "pelora/platform/uuid_internal.hpp"

namespace pelora::platform {
namespace {

// Our namespace for name-based device ids. Changing it changes every device id.
constexpr uuid_t deviceIdNamespace = {0xAA, 0x25, 0x5D, 0x25, 0x75, 0x68, 0x45, 0x62,
                                      0xAF, 0x6F, 0x4D, 0xE1, 0xFA, 0x9A, 0x8B, 0x25};

// uuid_generate_random costs about 2 µs a call here (getrandom plus five other system calls), and
// one id is drawn per recorded event; so ids come from a per-thread pool of kernel random bytes,
// refilled 256 ids at a time (about 0.1 µs an id). libuuid stays the fallback.
struct RandomPool {
  unsigned char bytes[4096];
  std::size_t used = sizeof bytes;
  unsigned generation = 0;
};

// Bumped in every forked child, so that a child never hands out ids left in its parent's pool.
std::atomic<unsigned> forkGeneration{0};

bool takeFromPool(uuid_t uuid) {
  static const bool forkHandled = pthread_atfork(nullptr, nullptr, [] {
                                    forkGeneration.fetch_add(1, std::memory_order_relaxed);
                                  }) == 0;
  if (!forkHandled) return false;
  thread_local RandomPool pool;
  const unsigned generation = forkGeneration.load(std::memory_order_relaxed);
  if (pool.used == sizeof pool.bytes || pool.generation != generation) {
    pool.used = sizeof pool.bytes;
    // A short read (a signal) or no entropy yet at boot: let libuuid handle this one.
    if (getrandom(pool.bytes, sizeof pool.bytes, GRND_NONBLOCK) !=
        static_cast<ssize_t>(sizeof pool.bytes)) {
      return false;
    }
    pool.used = 0;
    pool.generation = generation;
  }
  std::memcpy(uuid, pool.bytes + pool.used, sizeof(uuid_t));
  pool.used += sizeof(uuid_t);
  uuid[6] = (uuid[6] & 0x0F) | 0x40;  // version 4
  uuid[8] = (uuid[8] & 0x3F) | 0x80;  // RFC 4122 variant
  return true;
}

// The machine id, or, where the system keeps none, a random one drawn once for this process.
const std::string& machineId() {
  static const std::string id =
      detail::readMachineId({"/etc/machine-id", "/var/lib/dbus/machine-id"}).value_or(uuidString());
  return id;
}

}  // namespace

// What uuid_unparse_upper writes, straight into the string: one id per recorded event, and the
// library's version goes through a format string.
std::string detail::unparseUpper(const unsigned char (&uuid)[16]) {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string text(36, '-');
  char* out = text.data();
  for (int i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) ++out;  // past a dash
    *out++ = digits[uuid[i] >> 4];
    *out++ = digits[uuid[i] & 0x0F];
  }
  return text;
}

std::string uuidString() {
  uuid_t uuid;
  if (!takeFromPool(uuid)) uuid_generate_random(uuid);
  return detail::unparseUpper(uuid);
}

std::string deviceIdentifier(std::string_view applicationId) {
  return detail::deviceIdentifier(machineId(), applicationId);
}

namespace detail {

std::optional<std::string> readMachineId(const std::vector<std::filesystem::path>& files) {
  constexpr std::string_view blank = " \t\r\n";
  for (const auto& file : files) {
    std::ifstream in(file);
    std::string line;
    if (!in || !std::getline(in, line)) continue;
    const auto first = line.find_first_not_of(blank);
    if (first == std::string::npos) continue;
    return line.substr(first, line.find_last_not_of(blank) - first + 1);
  }
  return std::nullopt;
}

std::string deviceIdentifier(std::string_view machineId, std::string_view applicationId) {
  std::string name;
  name.reserve(machineId.size() + 1 + applicationId.size());
  name.append(machineId).append("\n").append(applicationId);
  uuid_t uuid;
  uuid_generate_sha1(uuid, deviceIdNamespace, name.data(), name.size());
  return detail::unparseUpper(uuid);
}

}  // namespace detail
}  // namespace pelora::platform
