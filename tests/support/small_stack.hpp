// Runs a function on a thread with a small stack, as hosts' worker threads often have, so that a
// test shows that deep input cannot exhaust it.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <functional>
#include <stdexcept>

namespace pelora::test {

// 512 KiB; the sanitizers' instrumentation makes every frame several times larger.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr std::size_t smallStackBytes = 4 * 512 * 1024;
#else
inline constexpr std::size_t smallStackBytes = 512 * 1024;
#endif

inline void runOnSmallStack(const std::function<void()>& body) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, smallStackBytes);
  pthread_t thread;
  auto entry = [](void* argument) -> void* {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
  };
  const int error =
      pthread_create(&thread, &attributes, entry, const_cast<std::function<void()>*>(&body));
  pthread_attr_destroy(&attributes);
  if (error != 0) throw std::runtime_error("pthread_create failed");
  pthread_join(thread, nullptr);
}

}  // namespace pelora::test
