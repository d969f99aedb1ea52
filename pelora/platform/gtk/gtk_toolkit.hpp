// The WebKitGTK toolkit (library pelora::gtk): in-app messages in real windows on a GTK desktop.
// Each presented controller gets a top-level window, transient for the host's window, holding a
// WebKitWebView under its labels; WebKit's "decide-policy" is the navigation policy; URLs open
// with GIO's default handler unless the host sets its own; the library's main queue runs on
// GLib's default main context. Everything here belongs on the GTK thread.
//
// Message pages come from the network, so a web view shows only the message's own HTML, in a
// private ephemeral WebKit context and WebKit's sandbox. The page may run JavaScript and load
// https content, but reaches no plain http, no loopback, private or local-only address (by URL:
// a public name that resolves to such an address is not caught), no sub-frame content, and opens
// no windows, downloads, permissions, file choosers or menus. Only a link a person follows is
// offered to the opener; what a script, a refresh or a frame points at opens nothing.
//
//   gtk_init(&argc, &argv);
//   GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
//   pelora::gtk::install(GTK_WINDOW(window));
//   auto client = pelora::PeloraAnalytics::create(configuration);
//   gtk_main();
#pragma once

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <functional>
#include <memory>
#include <string>

#include "pelora/core/export.h"
#include "pelora/platform/ui.hpp"

namespace pelora::gtk {

// Makes the WebKitGTK toolkit the shared one, with `hostWindow` as the first window (its size is
// the screen that messages fill), and hands the main queue to GLib's default main context. Call
// once, on the GTK thread, after gtk_init and before creating the client. It iterates the default
// main context while WebKit compiles the filter that keeps message pages off local addresses
// (milliseconds; at most 10 s); if that fails, pages run without JavaScript or network, and a
// warning says so.
PELORA_API std::shared_ptr<platform::ui::Application> install(GtkWindow* hostWindow);

// Opens URLs with `handler` (which says whether it could) instead of GIO's default application.
// Only http and https URLs reach it, normalised, as without a handler. A null handler restores
// GIO's.
PELORA_API void setOpenURLHandler(std::function<bool(const std::string& url)> handler);
// The same, with the host deciding what may be opened: `canOpen` answers for every link a person
// follows in a message (any scheme, "mailto:" or an app's own included) and `handler` receives,
// unchanged, each URL `canOpen` accepts. The URL is the message's actionClick (set by the service)
// followed by the link, so `canOpen` should accept only what is safe to open whatever it holds.
PELORA_API void setOpenURLHandler(std::function<bool(const std::string& url)> handler,
                                  std::function<bool(const std::string& url)> canOpen);

// The window that shows `controller`, or null when it is not on screen.
PELORA_API GtkWindow* windowOf(const platform::ui::ViewController& controller);

// The WebKit view behind a web view of this toolkit, or null for another kind.
PELORA_API WebKitWebView* webKitViewOf(const platform::ui::WebView& webView);

// Saves what `window` shows as a PNG file; false when it cannot.
PELORA_API bool saveScreenshot(GtkWindow* window, const std::string& path);

}  // namespace pelora::gtk
