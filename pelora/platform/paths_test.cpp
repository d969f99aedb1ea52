#include "pelora/platform/paths.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <optional>
#include <string>

namespace pelora::platform {
namespace {

// Sets an environment variable for one scope. Tests here run before any library thread reads
// the environment.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = ::getenv(name)) old_ = old;
    value ? ::setenv(name, value, 1) : ::unsetenv(name);
  }
  ~ScopedEnv() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(PathsTest, DefaultsFollowHomeAndXDG) {
  ScopedEnv home("HOME", "/home/someone");
  {
    ScopedEnv xdg("XDG_CONFIG_HOME", "/xdg/config");
    EXPECT_EQ(Paths::defaults().documents, "/home/someone/Documents");
    EXPECT_EQ(Paths::defaults().preferences, "/xdg/config");
  }
  {
    ScopedEnv xdg("XDG_CONFIG_HOME", "relative/ignored");
    EXPECT_EQ(Paths::defaults().preferences, "/home/someone/.config");
  }
  ScopedEnv noHome("HOME", nullptr);
  const Paths fallback = Paths::defaults();
  EXPECT_TRUE(fallback.documents.is_absolute());
  EXPECT_EQ(fallback.documents.filename(), "Documents");
}

}  // namespace
}  // namespace pelora::platform
