// In-app messages on a GTK desktop: a host window, the WebKitGTK toolkit, and a client that polls
// the message service. The first message is shown in a window of its own over the host's; this
// host saves a screenshot of it while it is on screen and exits once it has closed (by its
// countdown, or its exit link). Against the local collector:
//
//   inapp --connect-to api.pelora.io:443:127.0.0.1:8443 --ca-file <collector's ca.pem>
//         --screenshot inapp.png
//
// Exit status: 0 when a message was shown and closed, 1 when none came before the deadline.
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include <pelora/pelora.hpp>
#include <pelora/platform/gtk/gtk_toolkit.hpp>

namespace {

constexpr const char* usage = R"(usage: inapp [options]
  --connect-to ENTRY  reroute a host, HOST:PORT:CONNECT-TO-HOST:CONNECT-TO-PORT (repeatable)
  --ca-file FILE      trust this CA bundle for HTTPS
  --data DIR          keep the client's files under DIR (default: the user's directories)
  --screenshot FILE   save a PNG of the message while it is shown
  --timeout S         give up after S seconds without a message (default 60)
  --verbose           print the library's debug log
)";

[[noreturn]] void fail(const std::string& message) {
  std::cerr << "inapp: " << message << "\n" << usage;
  std::exit(2);
}

// Watches the screen from the GTK main loop.
struct Watch {
  std::string screenshot;
  std::chrono::steady_clock::time_point deadline;
  std::shared_ptr<pelora::platform::ui::ViewController> shown;
  std::chrono::steady_clock::time_point loadedAt{};
  bool saved = false;
  int status = 1;
};

gboolean watch(gpointer data) {
  auto& state = *static_cast<Watch*>(data);
  using Clock = std::chrono::steady_clock;
  auto root = pelora::platform::ui::Application::shared()->windows().front()->rootViewController;
  auto presented = root->presentedViewController();
  if (!state.shown) {
    if (presented) {
      state.shown = presented;
      std::cout << "inapp: a message is on screen, titled \"" << presented->title.value_or("")
                << "\"" << std::endl;
    } else if (Clock::now() > state.deadline) {
      std::cerr << "inapp: no message came" << std::endl;
      gtk_main_quit();
      return G_SOURCE_REMOVE;
    }
    return G_SOURCE_CONTINUE;
  }
  if (presented == state.shown) {
    // Once the page has loaded and had a moment to draw, photograph the window.
    auto message = std::dynamic_pointer_cast<pelora::IAMFullScreenViewController>(state.shown);
    WebKitWebView* web = message ? pelora::gtk::webKitViewOf(*message->webView) : nullptr;
    if (web && !webkit_web_view_is_loading(web) && state.loadedAt == Clock::time_point{}) {
      state.loadedAt = Clock::now();
    }
    if (!state.saved && !state.screenshot.empty() && state.loadedAt != Clock::time_point{} &&
        Clock::now() - state.loadedAt > std::chrono::milliseconds(800)) {
      state.saved =
          pelora::gtk::saveScreenshot(pelora::gtk::windowOf(*state.shown), state.screenshot);
      std::cout << "inapp: " << (state.saved ? "screenshot saved to " : "could not save ")
                << state.screenshot << std::endl;
    }
    return G_SOURCE_CONTINUE;
  }
  std::cout << "inapp: the message has closed" << std::endl;
  pelora::IAMManager::shared()->stopPolling();
  state.status = state.screenshot.empty() || state.saved ? 0 : 1;
  // The manager's hand-over to a next message is 0.3 s; let it print, then end.
  g_timeout_add(
      500,
      [](gpointer) -> gboolean {
        gtk_main_quit();
        return G_SOURCE_REMOVE;
      },
      nullptr);
  return G_SOURCE_REMOVE;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> connectTo;
  std::string caFile;
  std::string dataDirectory;
  Watch state;
  int timeoutSeconds = 60;
  bool verbose = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view option = argv[i];
    if (option == "-h" || option == "--help") {
      std::cout << usage;
      return 0;
    }
    if (option == "--verbose") {
      verbose = true;
      continue;
    }
    if (i + 1 >= argc) fail(std::string(option) + " needs a value");
    const std::string value = argv[++i];
    if (option == "--connect-to") {
      connectTo.push_back(value);
    } else if (option == "--ca-file") {
      caFile = value;
    } else if (option == "--data") {
      dataDirectory = value;
    } else if (option == "--screenshot") {
      state.screenshot = value;
    } else if (option == "--timeout") {
      timeoutSeconds = std::atoi(value.c_str());
    } else {
      fail("unknown option " + std::string(option));
    }
  }
  if (!gtk_init_check(&argc, &argv)) fail("cannot open a display (run it under xvfb-run)");

  GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_title(GTK_WINDOW(window), "Pelora in-app demo host");
  gtk_window_set_default_size(GTK_WINDOW(window), 420, 720);
  gtk_container_add(GTK_CONTAINER(window), gtk_label_new("The host application's own window"));
  gtk_widget_show_all(window);
  pelora::gtk::install(GTK_WINDOW(window));
  // No browser here: a clicked web link is printed instead.
  pelora::gtk::setOpenURLHandler([](const std::string& url) {
    std::cout << "inapp: would open " << url << std::endl;
    return true;
  });

  pelora::PeloraAnalytics::setDebugLogsEnabled(verbose);
  auto configuration =
      std::make_shared<pelora::Configuration>("demo-write-key", std::nullopt, true);
  configuration->connectTo(connectTo).caBundle(caFile).autoAddPeloraDestination(false);
  if (!dataDirectory.empty()) {
    configuration->paths({dataDirectory + "/Documents", dataDirectory + "/config"});
  }
  auto client = pelora::PeloraAnalytics::create(configuration);
  std::cout << "inapp: polling for in-app messages as workspace demo-write-key" << std::endl;

  state.deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
  g_timeout_add(100, &watch, &state);
  gtk_main();
  return state.status;
}
