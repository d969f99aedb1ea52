#include "pelora/platform/gtk/message_content.hpp"

#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "pelora/core/json.hpp"
#include "pelora/platform/console.hpp"

namespace pelora::gtk::detail {
namespace {

// Remote content comes only over https (wss for sockets) and never into a frame; scripts and styles
// may be inline, since a message is one HTML text and its countdown needs script. A page's own
// policy can only narrow this one.
constexpr const char* kPolicy =
    "default-src https: data: blob:; script-src https: 'unsafe-inline' 'unsafe-eval'; "
    "style-src https: 'unsafe-inline'; connect-src https: wss:; frame-src 'none'; "
    "child-src 'none'; worker-src 'none'; object-src 'none'; base-uri 'none'; "
    "form-action https:";
// Without the address filter nothing is fetched at all.
constexpr const char* kClosedPolicy =
    "default-src 'none'; style-src 'unsafe-inline'; img-src data:; font-src data:; "
    "base-uri 'none'; form-action 'none'";

// The scheme and any user info, as WebKit writes a URL out before matching it: host in lower case,
// an IPv4 address in dotted decimal however the page spelled it, "@" inside user info escaped.
constexpr std::string_view kBeforeHost = "^[a-z][-+.a-z0-9]*://([^/@]*@)?";
// Hosts out of reach, each ending where a host ends (a port or the path follows). WebKit's rule
// regexes have no alternation, so each pattern is a rule of its own.
constexpr const char* kLocalHosts[] = {
    R"(127\.[0-9.]+[:/])",  // loopback
    R"(0\.[0-9.]+[:/])",    // "this network": 0.0.0.0 reaches loopback
    R"(10\.[0-9.]+[:/])",   // private
    R"(172\.1[6-9]\.[0-9.]+[:/])",
    R"(172\.2[0-9]\.[0-9.]+[:/])",
    R"(172\.3[01]\.[0-9.]+[:/])",
    R"(192\.168\.[0-9.]+[:/])",
    R"(169\.254\.[0-9.]+[:/])",     // link-local
    R"(100\.6[4-9]\.[0-9.]+[:/])",  // shared address space (carrier-grade NAT)
    R"(100\.[7-9][0-9]\.[0-9.]+[:/])",
    R"(100\.1[01][0-9]\.[0-9.]+[:/])",
    R"(100\.12[0-7]\.[0-9.]+[:/])",
    R"(\[)",              // every IPv6 address, the loopback and mapped IPv4 ones among them
    R"([^./@]+\.?[:/])",  // a name of one label, resolved on the local network or in /etc/hosts
    R"(([^/@]*\.)?localhost\.?[:/])",
    R"(([^/@]*\.)?local\.?[:/])",
    R"(([^/@]*\.)?localdomain\.?[:/])",
    R"(([^/@]*\.)?internal\.?[:/])",
    R"(([^/@]*\.)?lan\.?[:/])",
    R"(([^/@]*\.)?home\.arpa\.?[:/])",
};
constexpr const char* kFilterIdentifier = "pelora-message-addresses";

// The machine's own name as a host pattern; nothing for a name that is not a plain host name.
std::optional<std::string> hostPattern(std::string_view name) {
  if (name.empty()) return std::nullopt;
  std::string pattern;
  for (const char c : name) {
    if (c == '.') {
      pattern += R"(\.)";
    } else if (g_ascii_isalnum(c) || c == '-') {
      pattern += g_ascii_tolower(c);
    } else {
      return std::nullopt;
    }
  }
  return pattern + R"(\.?[:/])";
}

struct Compilation {
  Compilation() = default;
  Compilation(const Compilation&) = delete;
  Compilation& operator=(const Compilation&) = delete;
  ~Compilation() {
    if (filter) webkit_user_content_filter_unref(filter);
  }
  bool done = false;
  WebKitUserContentFilter* filter = nullptr;
  std::string error;
};

// The store's answer; it may come after the waiter gave up, so it owns a share of the state.
void compiled(GObject* store, GAsyncResult* result, gpointer data) {
  const std::unique_ptr<std::shared_ptr<Compilation>> held(
      static_cast<std::shared_ptr<Compilation>*>(data));
  Compilation& compilation = **held;
  GError* error = nullptr;
  compilation.filter = webkit_user_content_filter_store_save_finish(
      WEBKIT_USER_CONTENT_FILTER_STORE(store), result, &error);
  if (error) {
    compilation.error = error->message;
    g_error_free(error);
  }
  compilation.done = true;
}

// A new directory only this user can enter (mkdtemp makes it 0700), under the temporary directory.
std::optional<std::filesystem::path> privateDirectory(std::string& error) {
  std::error_code code;
  const auto base = std::filesystem::temp_directory_path(code);
  if (code) {
    error = "no temporary directory: " + code.message();
    return std::nullopt;
  }
  std::string path = (base / "pelora-message-filter-XXXXXX").string();
  if (!::mkdtemp(path.data())) {
    error = "cannot make " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  return path;
}

WebKitUserContentFilter* compileAddressFilter(std::chrono::milliseconds bound, std::string& error) {
  const auto directory = privateDirectory(error);
  if (!directory) return nullptr;
  WebKitUserContentFilterStore* store = webkit_user_content_filter_store_new(directory->c_str());
  const std::string rules = MessageContent::addressFilterRules(g_get_host_name());
  GBytes* source = g_bytes_new(rules.data(), rules.size());
  GCancellable* cancellable = g_cancellable_new();
  auto compilation = std::make_shared<Compilation>();
  webkit_user_content_filter_store_save(store, kFilterIdentifier, source, cancellable, &compiled,
                                        new std::shared_ptr<Compilation>(compilation));
  g_bytes_unref(source);

  // WebKit compiles on a thread of its own and answers through the default main context.
  bool late = false;
  const guint timeout = g_timeout_add(
      static_cast<guint>(bound.count()),
      [](gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &late);
  while (!compilation->done && !late) g_main_context_iteration(nullptr, TRUE);
  if (late) {
    g_cancellable_cancel(cancellable);
    error = "WebKit did not compile it within " + std::to_string(bound.count()) + " ms";
  } else {
    g_source_remove(timeout);
    if (!compilation->filter) error = compilation->error;
  }
  g_object_unref(cancellable);
  g_object_unref(store);
  // The compiled rules stay mapped in memory; nothing reads the file again.
  std::error_code ignored;
  std::filesystem::remove_all(*directory, ignored);
  return std::exchange(compilation->filter, nullptr);
}

// Connections and name look-ups that no content policy governs, and downloads by attribute.
void switchOff(WebKitSettings* settings, std::initializer_list<std::string_view> identifiers) {
  WebKitFeatureList* features = webkit_settings_get_all_features();
  for (gsize i = 0; i < webkit_feature_list_get_length(features); ++i) {
    WebKitFeature* feature = webkit_feature_list_get(features, i);
    if (std::find(identifiers.begin(), identifiers.end(),
                  std::string_view(webkit_feature_get_identifier(feature))) != identifiers.end()) {
      webkit_settings_set_feature_enabled(settings, feature, FALSE);
    }
  }
  webkit_feature_list_unref(features);
}

// Frames can hold nothing but the page's own markup, and are not even shown: whatever a person
// clicks is in the message's main frame. User-level !important outranks anything the page says.
constexpr const char* kNoFrames = "iframe, frame, object, embed { display: none !important; }";

// A page gets no permissions, files, menus, dialogs of the desktop or credentials.
gboolean denyPermission(WebKitWebView*, WebKitPermissionRequest* request, gpointer) {
  webkit_permission_request_deny(request);
  return TRUE;
}
gboolean noFileChooser(WebKitWebView*, WebKitFileChooserRequest* request, gpointer) {
  webkit_file_chooser_request_cancel(request);
  return TRUE;
}
gboolean noContextMenu(WebKitWebView*, WebKitContextMenu*, GdkEvent*, WebKitHitTestResult*,
                       gpointer) {
  return TRUE;
}
gboolean noPrinting(WebKitWebView*, WebKitPrintOperation*, gpointer) {
  return TRUE;
}
gboolean noNotification(WebKitWebView*, WebKitNotification*, gpointer) {
  return TRUE;
}
gboolean noFullscreen(WebKitWebView*, gpointer) {
  return TRUE;
}
gboolean noCredentials(WebKitWebView*, WebKitAuthenticationRequest* request, gpointer) {
  webkit_authentication_request_cancel(request);
  return TRUE;
}
void noDownload(WebKitWebContext*, WebKitDownload* download, gpointer) {
  webkit_download_cancel(download);
}

}  // namespace

MessageContent::MessageContent(std::chrono::milliseconds bound)
    : context_(webkit_web_context_new_ephemeral()) {
  // Remote content runs in WebKit's sandbox (bubblewrap), set before the context's first process.
  webkit_web_context_set_sandbox_enabled(context_, TRUE);
  g_signal_connect(context_, "download-started", G_CALLBACK(&noDownload), nullptr);
  std::string error;
  filter_ = compileAddressFilter(bound, error);
  if (!filter_) {
    platform::printLine(
        "Pelora: in-app message pages will have no JavaScript and no network: their address "
        "filter could not be compiled (" +
            error + ")",
        LogLevel::warning);
  }
}

MessageContent::~MessageContent() {
  if (filter_) webkit_user_content_filter_unref(filter_);
  g_signal_handlers_disconnect_by_func(context_, reinterpret_cast<gpointer>(&noDownload), nullptr);
  g_object_unref(context_);
}

WebKitWebView* MessageContent::makeWebView() const {
  WebKitSettings* settings = webkit_settings_new();
  webkit_settings_set_enable_javascript(settings, !failedClosed());
  webkit_settings_set_javascript_can_open_windows_automatically(settings, FALSE);
  webkit_settings_set_javascript_can_access_clipboard(settings, FALSE);
  webkit_settings_set_enable_webrtc(settings, FALSE);
  webkit_settings_set_enable_media_stream(settings, FALSE);
  webkit_settings_set_enable_developer_extras(settings, FALSE);
  webkit_settings_set_allow_file_access_from_file_urls(settings, FALSE);
  webkit_settings_set_allow_universal_access_from_file_urls(settings, FALSE);
  switchOff(settings, {"LinkPreconnect", "LinkDNSPrefetch", "LinkPrefetch", "DownloadAttribute"});
  WebKitUserContentManager* content = webkit_user_content_manager_new();
  if (filter_) webkit_user_content_manager_add_filter(content, filter_);
  WebKitUserStyleSheet* noFrames =
      webkit_user_style_sheet_new(kNoFrames, WEBKIT_USER_CONTENT_INJECT_ALL_FRAMES,
                                  WEBKIT_USER_STYLE_LEVEL_USER, nullptr, nullptr);
  webkit_user_content_manager_add_style_sheet(content, noFrames);
  webkit_user_style_sheet_unref(noFrames);

  auto* view = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", context_,
                                            "settings", settings, "user-content-manager", content,
                                            "default-content-security-policy",
                                            failedClosed() ? kClosedPolicy : kPolicy, nullptr));
  g_object_unref(settings);
  g_object_unref(content);
  g_signal_connect(view, "permission-request", G_CALLBACK(&denyPermission), nullptr);
  g_signal_connect(view, "run-file-chooser", G_CALLBACK(&noFileChooser), nullptr);
  g_signal_connect(view, "context-menu", G_CALLBACK(&noContextMenu), nullptr);
  g_signal_connect(view, "print", G_CALLBACK(&noPrinting), nullptr);
  g_signal_connect(view, "show-notification", G_CALLBACK(&noNotification), nullptr);
  g_signal_connect(view, "enter-fullscreen", G_CALLBACK(&noFullscreen), nullptr);
  g_signal_connect(view, "authenticate", G_CALLBACK(&noCredentials), nullptr);
  return view;
}

bool MessageContent::isOwnDocument(const char* url) {
  if (!url) return false;
  GUri* uri = g_uri_parse(url, G_URI_FLAGS_NONE, nullptr);
  if (!uri) return false;
  const bool own = g_ascii_strcasecmp(g_uri_get_scheme(uri), "about") == 0 &&
                   !g_uri_get_host(uri) && g_strcmp0(g_uri_get_path(uri), "blank") == 0 &&
                   !g_uri_get_query(uri);
  g_uri_unref(uri);
  return own;
}

std::string MessageContent::addressFilterRules(std::string_view hostName) {
  JSON::List rules;
  const auto block = [&rules](std::string filter) {
    rules.emplace_back(JSON::Map{{"trigger", JSON::Map{{"url-filter", std::move(filter)}}},
                                 {"action", JSON::Map{{"type", "block"}}}});
  };
  block("^http:");
  block("^ws:");
  for (const char* host : kLocalHosts) block(std::string(kBeforeHost) + host);
  if (auto own = hostPattern(hostName)) block(std::string(kBeforeHost) + *own);
  return JSON(std::move(rules)).toString();
}

}  // namespace pelora::gtk::detail
