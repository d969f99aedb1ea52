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
    ScopedEnv data("XDG_DATA_HOME", "/xdg/data");
    ScopedEnv config("XDG_CONFIG_HOME", "/xdg/config");
    EXPECT_EQ(Paths::defaults().documents, "/xdg/data");
    EXPECT_EQ(Paths::defaults().preferences, "/xdg/config");
  }
  {
    ScopedEnv data("XDG_DATA_HOME", "relative/ignored");
    ScopedEnv config("XDG_CONFIG_HOME", "relative/ignored");
    EXPECT_EQ(Paths::defaults().documents, "/home/someone/.local/share");
    EXPECT_EQ(Paths::defaults().preferences, "/home/someone/.config");
  }
  ScopedEnv noData("XDG_DATA_HOME", nullptr);
  ScopedEnv noHome("HOME", nullptr);
  const Paths fallback = Paths::defaults();
  EXPECT_TRUE(fallback.documents.is_absolute());
  EXPECT_EQ(fallback.documents.filename(), "share");
}

}  // namespace
}  // namespace pelora::platform
