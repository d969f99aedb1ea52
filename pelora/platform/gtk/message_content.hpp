// What an in-app message page may do on a GTK desktop. The toolkit makes one MessageContent at
// install and every message's WebKitWebView from it: a private, ephemeral web context in WebKit's
// sandbox (nothing persisted, none of the host's URI schemes or extensions), JavaScript on, no
// downloads, permissions, file choosers, menus or printing, a content security policy that keeps
// plain http and remote frames out, frames hidden, and a content filter that keeps loopback and
// private addresses out of reach. The toolkit's view keeps navigations and new windows in hand.
// GTK thread only.
#pragma once

#include <webkit2/webkit2.h>

#include <chrono>
#include <string>
#include <string_view>

namespace pelora::gtk::detail {

class MessageContent {
 public:
  // Compiles the address filter, iterating GLib's default main context for up to `bound` while
  // WebKit does. When it cannot (no private temporary directory, WebKit refusing the rules, no
  // answer in time), message pages get neither JavaScript nor any network, and a warning says so.
  explicit MessageContent(std::chrono::milliseconds bound = std::chrono::seconds(10));
  ~MessageContent();
  MessageContent(const MessageContent&) = delete;
  MessageContent& operator=(const MessageContent&) = delete;

  // A new web view for one message (a floating reference, as webkit_web_view_new gives).
  WebKitWebView* makeWebView() const;
  // Whether message pages run without the filter (and so without script and network).
  bool failedClosed() const noexcept { return filter_ == nullptr; }

  // The only document a message view may show: its own HTML (loaded with no base URI, so
  // "about:blank") and fragments of it.
  static bool isOwnDocument(const char* url);
  // The filter's rules: WebKit content-blocker JSON refusing plain http and ws, and every URL
  // whose host is a loopback, private, link-local or local-only name or address (`hostName`, the
  // machine's own name, among them).
  static std::string addressFilterRules(std::string_view hostName);

 private:
  WebKitWebContext* context_ = nullptr;
  WebKitUserContentFilter* filter_ = nullptr;
};

}  // namespace pelora::gtk::detail
