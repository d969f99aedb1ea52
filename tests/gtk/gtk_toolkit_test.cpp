// The WebKitGTK toolkit with real windows and real HTML, on an Xvfb server of the test's own.
// WebKit's sandbox and GPU compositing are off: neither works in a container without a GPU.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "pelora/messages/iam_full_screen_view_controller.hpp"
#include "pelora/platform/gtk/gtk_toolkit.hpp"
#include "pelora/platform/logging.hpp"
#include "tests/support/iam.hpp"
#include "tests/support/temp_directory.hpp"

extern char** environ;

namespace pelora {
namespace {

using namespace std::chrono_literals;

// Iterates GLib's main context (which runs the library's main queue) until `done` holds.
bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = 20s) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    if (!g_main_context_iteration(nullptr, FALSE)) std::this_thread::sleep_for(5ms);
  }
  return true;
}

const char* const kPage =
    R"(<html><body style="background:#2a6df4;color:white;font:24px sans-serif">
<h1>Hello from Pelora</h1>
<a id="exit" href="pelora://exit?reason=done">Close</a>
<a id="web" href="https://example.com/page">Read more</a>
</body></html>)";

class GtkToolkitTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    host = GTK_WINDOW(gtk_window_new(GTK_WINDOW_TOPLEVEL));
    gtk_window_set_default_size(host, 390, 600);
    gtk_widget_show_all(GTK_WIDGET(host));
    gtk::install(host);
  }
  void TearDown() override {
    gtk::setOpenURLHandler(nullptr);
    log::setDebugEnabled(false);
  }

  // Presents a message whose page is kPage and waits until WebKit has drawn it.
  std::shared_ptr<IAMFullScreenViewController> show(const std::string& fields) {
    auto controller = std::make_shared<IAMFullScreenViewController>();
    controller->iamData = decodeFromString<IAMData>(test::iamData(fields, kPage));
    platform::ui::Application::shared()->windows().front()->rootViewController->present(controller,
                                                                                        false);
    WebKitWebView* web = gtk::webKitViewOf(*controller->webView);
    EXPECT_TRUE(runUntil([&] {
      GtkWindow* window = gtk::windowOf(*controller);
      return window && gtk_widget_get_mapped(GTK_WIDGET(window)) &&
             !webkit_web_view_is_loading(web) &&
             webkit_web_view_get_estimated_load_progress(web) == 1.0;
    }));
    runUntil([] { return false; }, 500ms);  // the first frames
    return controller;
  }
  void click(const std::shared_ptr<IAMFullScreenViewController>& controller, const char* id) {
    const std::string script = std::string("document.getElementById('") + id + "').click();";
    webkit_web_view_evaluate_javascript(gtk::webKitViewOf(*controller->webView), script.c_str(), -1,
                                        nullptr, nullptr, nullptr, nullptr, nullptr);
  }

  static GtkWindow* host;
};
GtkWindow* GtkToolkitTest::host = nullptr;

TEST_F(GtkToolkitTest, ExitLinkClosesTheWindowAndTellsTheManager) {
  auto controller = show(R"("closingAfter":9)");
  GtkWindow* window = gtk::windowOf(*controller);
  ASSERT_TRUE(window);
  EXPECT_EQ(gtk_window_get_transient_for(window), host);

  // What is on screen is the page, not an empty window.
  test::TempDirectory dir;
  const std::string shot = (dir.path() / "shown.png").string();
  ASSERT_TRUE(gtk::saveScreenshot(window, shot));
  GdkPixbuf* pixels = gdk_pixbuf_new_from_file(shot.c_str(), nullptr);
  ASSERT_TRUE(pixels);
  const int stride = gdk_pixbuf_get_rowstride(pixels);
  const guchar* data = gdk_pixbuf_get_pixels(pixels);
  const int channels = gdk_pixbuf_get_n_channels(pixels);
  int blue = 0;
  for (int y = 0; y < gdk_pixbuf_get_height(pixels); y += 4) {
    for (int x = 0; x < gdk_pixbuf_get_width(pixels); x += 4) {
      const guchar* p = data + y * stride + x * channels;
      if (p[2] > 200 && p[0] < 100) ++blue;  // the page's background
    }
  }
  g_object_unref(pixels);
  EXPECT_GT(blue, 100) << "the page was not drawn";

  log::setDebugEnabled(true);
  ::testing::internal::CaptureStdout();
  click(controller, "exit");
  EXPECT_TRUE(runUntil([&] { return gtk::windowOf(*controller) == nullptr; }));
  runUntil([] { return false; }, 100ms);  // the dismissal's completion
  const std::string printed = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("pelora://exit?reason=done"), std::string::npos) << printed;
  EXPECT_NE(printed.find("dismissIAM ..."), std::string::npos) << printed;
  EXPECT_FALSE(controller->timer->isValid());
}

TEST_F(GtkToolkitTest, WebLinkGoesBehindActionClickToTheOpenURLHandler) {
  std::vector<std::string> opened;
  gtk::setOpenURLHandler([&](const std::string& url) {
    opened.push_back(url);
    return true;
  });
  auto controller = show(R"("actionClick":"https://r.example/c?u=")");
  click(controller, "web");
  EXPECT_TRUE(runUntil([&] { return !opened.empty() && gtk::windowOf(*controller) == nullptr; }));
  EXPECT_EQ(opened, std::vector<std::string>{"https://r.example/c?u=https://example.com/page"});
}

// An X server of the test's own, for as long as the tests run.
class Xvfb : public ::testing::Environment {
 public:
  void SetUp() override {
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    const std::string fd = std::to_string(pipeFds[1]);
    const char* argv[] = {"Xvfb",        "-displayfd", fd.c_str(), "-screen", "0",
                          "1024x900x24", "-nolisten",  "tcp",      nullptr};
    ASSERT_EQ(posix_spawnp(&pid_, "Xvfb", nullptr, nullptr, const_cast<char**>(argv), environ), 0)
        << "Xvfb not found (package xvfb)";
    ::close(pipeFds[1]);
    std::string display;
    char c;
    while (::read(pipeFds[0], &c, 1) == 1 && c != '\n') display.push_back(c);
    ::close(pipeFds[0]);
    ASSERT_FALSE(display.empty()) << "Xvfb did not start";
    ::setenv("DISPLAY", (":" + display).c_str(), 1);
    ::setenv("GDK_BACKEND", "x11", 1);
    ::setenv("WEBKIT_DISABLE_SANDBOX_THIS_IS_DANGEROUS", "1", 1);
    ::setenv("WEBKIT_DISABLE_COMPOSITING_MODE", "1", 1);
    ::setenv("WEBKIT_DISABLE_DMABUF_RENDERER", "1", 1);
    ::setenv("LIBGL_ALWAYS_SOFTWARE", "1", 1);
    ASSERT_TRUE(gtk_init_check(nullptr, nullptr)) << "GTK cannot open display :" << display;
  }
  void TearDown() override {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
  }

 private:
  pid_t pid_ = -1;
};

}  // namespace
}  // namespace pelora

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::AddGlobalTestEnvironment(new pelora::Xvfb);
  return RUN_ALL_TESTS();
}
