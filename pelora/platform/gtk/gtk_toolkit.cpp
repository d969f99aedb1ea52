#include "pelora/platform/gtk/gtk_toolkit.hpp"

#include <cmath>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <utility>

#include "pelora/platform/console.hpp"
#include "pelora/platform/dispatch.hpp"
#include "pelora/platform/gtk/message_content.hpp"
#include "pelora/platform/http_session.hpp"

namespace pelora::gtk {
namespace {

using platform::ui::Color;
using platform::ui::Rect;

std::string css(const Color& color) {
  std::ostringstream out;
  out << "rgba(" << std::lround(color.red * 255) << "," << std::lround(color.green * 255) << ","
      << std::lround(color.blue * 255) << "," << color.alpha << ")";
  return out.str();
}

// Gives `widget` its own style: `rules` apply to it alone.
void style(GtkWidget* widget, GtkCssProvider*& provider, const std::string& rules) {
  if (!provider) {
    provider = gtk_css_provider_new();
    gtk_style_context_add_provider(gtk_widget_get_style_context(widget),
                                   GTK_STYLE_PROVIDER(provider),
                                   GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
  }
  const std::string text = "* {" + rules + "}";
  gtk_css_provider_load_from_data(provider, text.c_str(), -1, nullptr);
}

// Where an overlaid view sits in its window.
void place(GtkWidget* widget, const Rect& frame) {
  gtk_widget_set_halign(widget, GTK_ALIGN_START);
  gtk_widget_set_valign(widget, GTK_ALIGN_START);
  gtk_widget_set_margin_start(widget, static_cast<int>(std::max(0.0, frame.x)));
  gtk_widget_set_margin_top(widget, static_cast<int>(std::max(0.0, frame.y)));
  gtk_widget_set_size_request(widget, static_cast<int>(frame.width),
                              static_cast<int>(frame.height));
}

// Common to this toolkit's views: the widget that shows them.
class Widget {
 public:
  virtual ~Widget() = default;
  virtual GtkWidget* widget() const = 0;
};

class RootView final : public platform::ui::View, public Widget {
 public:
  explicit RootView(Rect frame) : View(frame), overlay_(gtk_overlay_new()) {
    g_object_ref_sink(overlay_);
  }
  ~RootView() override {
    if (provider_) g_object_unref(provider_);
    g_object_unref(overlay_);
  }
  GtkWidget* widget() const override { return overlay_; }

 protected:
  void changed() override {
    style(overlay_, provider_, "background-color: " + css(backgroundColor()) + ";");
  }
  // The first subview fills the window; later ones lie over it at their frames.
  void subviewAdded(View& view) override {
    auto* child = dynamic_cast<Widget*>(&view);
    if (!child) return;
    if (!gtk_bin_get_child(GTK_BIN(overlay_))) {
      gtk_container_add(GTK_CONTAINER(overlay_), child->widget());
    } else {
      place(child->widget(), view.frame());
      gtk_overlay_add_overlay(GTK_OVERLAY(overlay_), child->widget());
    }
  }

 private:
  GtkWidget* overlay_;
  GtkCssProvider* provider_ = nullptr;
};

class LabelView final : public platform::ui::Label, public Widget {
 public:
  explicit LabelView(Rect frame) : Label(frame), label_(gtk_label_new("")) {
    g_object_ref_sink(label_);
    gtk_widget_set_no_show_all(label_, TRUE);
    changed();
  }
  ~LabelView() override {
    if (provider_) g_object_unref(provider_);
    g_object_unref(label_);
  }
  GtkWidget* widget() const override { return label_; }

 protected:
  void changed() override {
    gtk_label_set_text(GTK_LABEL(label_), text().c_str());
    const float x = textAlignment() == platform::ui::TextAlignment::left     ? 0.0f
                    : textAlignment() == platform::ui::TextAlignment::center ? 0.5f
                                                                             : 1.0f;
    gtk_label_set_xalign(GTK_LABEL(label_), x);
    style(label_, provider_,
          "color: " + css(textColor()) + "; background-color: " + css(backgroundColor()) +
              "; border-radius: " + std::to_string(static_cast<int>(cornerRadius())) +
              "px; font-size: " + std::to_string(static_cast<int>(fontSize())) + "px;");
    place(label_, frame());
    gtk_widget_set_visible(label_, !isHidden());
  }

 private:
  GtkWidget* label_;
  GtkCssProvider* provider_ = nullptr;
};

class WebKitView final : public platform::ui::WebView, public Widget {
 public:
  WebKitView(Rect frame, const detail::MessageContent& content)
      : WebView(frame), view_(content.makeWebView()) {
    g_object_ref_sink(view_);
    g_signal_connect(view_, "decide-policy", G_CALLBACK(&WebKitView::decide), this);
    g_signal_connect(view_, "create", G_CALLBACK(&WebKitView::create), this);
    changed();
  }
  ~WebKitView() override {
    g_signal_handlers_disconnect_by_data(view_, this);
    g_object_unref(view_);
  }
  GtkWidget* widget() const override { return GTK_WIDGET(view_); }
  WebKitWebView* webKitView() const noexcept { return view_; }

  void loadHTMLString(std::string html) override {
    WebView::loadHTMLString(html);
    webkit_web_view_load_html(view_, html.c_str(), nullptr);
  }

 protected:
  void changed() override {
    GdkRGBA background{0, 0, 0, 0};
    if (isOpaque()) {
      const Color color = backgroundColor();
      background = {color.red, color.green, color.blue, 1};
    }
    webkit_web_view_set_background_color(view_, &background);
    gtk_widget_set_size_request(GTK_WIDGET(view_), static_cast<int>(frame().width),
                                static_cast<int>(frame().height));
  }

 private:
  // What the delegate is told: the target, and whether WebKit counts it as a person's gesture
  // (scripts on their own, refreshes and frame loads are not).
  static platform::ui::NavigationAction navigationOf(WebKitNavigationAction* action) {
    platform::ui::NavigationAction navigation;
    WebKitURIRequest* request = webkit_navigation_action_get_request(action);
    if (const char* uri = request ? webkit_uri_request_get_uri(request) : nullptr) {
      navigation.url = uri;
    }
    navigation.userInitiated = webkit_navigation_action_is_user_gesture(action);
    return navigation;
  }

  // Every navigation (the HTML's own load too) and every new window goes to the delegate. Whatever
  // it decides, the view shows nothing but the message's own document, and never opens a window
  // or downloads: what WebKit cannot show is dropped.
  static gboolean decide(WebKitWebView*, WebKitPolicyDecision* decision,
                         WebKitPolicyDecisionType type, WebKitView* self) {
    if (type == WEBKIT_POLICY_DECISION_TYPE_RESPONSE) {
      auto* response = WEBKIT_RESPONSE_POLICY_DECISION(decision);
      WebKitURIRequest* request = webkit_response_policy_decision_get_request(response);
      if (webkit_response_policy_decision_is_mime_type_supported(response) && request &&
          detail::MessageContent::isOwnDocument(webkit_uri_request_get_uri(request))) {
        webkit_policy_decision_use(decision);
      } else {
        webkit_policy_decision_ignore(decision);
      }
      return TRUE;
    }
    const auto navigation = navigationOf(webkit_navigation_policy_decision_get_navigation_action(
        WEBKIT_NAVIGATION_POLICY_DECISION(decision)));
    const bool mayLoad = type == WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION && navigation.url &&
                         detail::MessageContent::isOwnDocument(navigation.url->c_str());
    auto delegate = self->navigationDelegate();
    if (!delegate) {
      mayLoad ? webkit_policy_decision_use(decision) : webkit_policy_decision_ignore(decision);
      return TRUE;
    }
    g_object_ref(decision);
    delegate->decidePolicy(*self, navigation,
                           [decision, mayLoad](platform::ui::NavigationActionPolicy policy) {
                             if (mayLoad && policy == platform::ui::NavigationActionPolicy::allow) {
                               webkit_policy_decision_use(decision);
                             } else {
                               webkit_policy_decision_ignore(decision);
                             }
                             g_object_unref(decision);
                           });
    return TRUE;
  }

  // window.open (which asks no policy first): no window ever, though the delegate hears of it
  // like any navigation, so that one a person clicked for opens as a link would.
  static GtkWidget* create(WebKitWebView*, WebKitNavigationAction* action, WebKitView* self) {
    if (auto delegate = self->navigationDelegate()) {
      delegate->decidePolicy(*self, navigationOf(action),
                             [](platform::ui::NavigationActionPolicy) {});
    }
    return nullptr;
  }

  WebKitWebView* view_;
};

struct OpenURLHandler {
  std::mutex mutex;
  std::function<bool(const std::string&)> handler;
  std::function<bool(const std::string&)> canOpen;
};

OpenURLHandler& openURLHandler() {
  static auto* slot = new OpenURLHandler;  // never destroyed: the toolkit lives as long
  return *slot;
}

std::pair<std::function<bool(const std::string&)>, std::function<bool(const std::string&)>>
currentOpenURLHandler() {
  auto& slot = openURLHandler();
  std::lock_guard lock(slot.mutex);
  return {slot.handler, slot.canOpen};
}

class Toolkit final : public platform::ui::Application {
 public:
  explicit Toolkit(GtkWindow* host)
      : host_(host),
        content_(std::make_unique<detail::MessageContent>()),
        window_(std::make_shared<platform::ui::Window>(
            platform::ui::Window{std::make_shared<platform::ui::ViewController>()})) {
    g_object_ref(host_);
  }
  ~Toolkit() override { g_object_unref(host_); }
  Toolkit(const Toolkit&) = delete;
  Toolkit& operator=(const Toolkit&) = delete;

  std::vector<std::shared_ptr<platform::ui::Window>> windows() const override { return {window_}; }

  // Web links only (an http or https URL, as curl reads it), unless the host's handler has a
  // canOpen of its own; without a handler, only when the desktop has an application for them.
  bool canOpenURL(const std::string& url) const override {
    const auto [handler, canOpen] = currentOpenURLHandler();
    if (canOpen) return canOpen(url);
    const auto web = platform::normalizedURL(url);
    if (!web) return false;
    if (handler) return true;
    char* scheme = g_uri_parse_scheme(web->c_str());
    if (!scheme) return false;
    GAppInfo* application = g_app_info_get_default_for_uri_scheme(scheme);
    g_free(scheme);
    if (!application) return false;
    g_object_unref(application);
    return true;
  }

  // Checked again here: what arrives is the service's actionClick followed by the link, so a
  // prefix can turn a web link into anything.
  void openURL(const std::string& url) override {
    const auto [handler, canOpen] = currentOpenURLHandler();
    if (canOpen) {
      if (canOpen(url)) handler(url);
      return;
    }
    const auto web = platform::normalizedURL(url);
    if (!web) {
      platform::printLine(
          "Pelora: not opening a message link that is not an http or https URL: " + url,
          LogLevel::warning);
      return;
    }
    if (handler) {
      handler(*web);
    } else {
      g_app_info_launch_default_for_uri(web->c_str(), nullptr, nullptr);
    }
  }

  std::shared_ptr<platform::ui::View> makeRootView() override {
    int width = 0;
    int height = 0;
    gtk_window_get_size(host_, &width, &height);
    return std::make_shared<RootView>(
        Rect{0, 0, static_cast<double>(width), static_cast<double>(height)});
  }
  std::shared_ptr<platform::ui::Label> makeLabel(Rect frame) override {
    return std::make_shared<LabelView>(frame);
  }
  std::shared_ptr<platform::ui::WebView> makeWebView(Rect frame) override {
    return std::make_shared<WebKitView>(frame, *content_);
  }

  GtkWindow* windowOf(const platform::ui::ViewController& controller) const {
    auto it = windows_.find(&controller);
    return it == windows_.end() ? nullptr : it->second;
  }

 protected:
  void show(platform::ui::ViewController& /*presenting*/, platform::ui::ViewController& presented,
            bool /*animated*/) override {
    GtkWidget* window = gtk_window_new(GTK_WINDOW_TOPLEVEL);
    gtk_window_set_transient_for(GTK_WINDOW(window), host_);
    // Keys the person was typing into the host must not land on the message (an Enter on a link
    // the page focused would follow it): the message gets the keyboard once clicked.
    gtk_window_set_focus_on_map(GTK_WINDOW(window), FALSE);
    gtk_window_set_title(GTK_WINDOW(window), presented.title.value_or("").c_str());
    const Rect frame = presented.view()->frame();
    gtk_window_set_default_size(GTK_WINDOW(window), static_cast<int>(frame.width),
                                static_cast<int>(frame.height));
    // A translucent window where a compositor can show one; a dimmed one elsewhere.
    GdkScreen* screen = gtk_widget_get_screen(window);
    if (GdkVisual* visual = gdk_screen_get_rgba_visual(screen);
        visual && gdk_screen_is_composited(screen)) {
      gtk_widget_set_visual(window, visual);
      gtk_widget_set_app_paintable(window, TRUE);
    }
    if (auto* root = dynamic_cast<Widget*>(presented.view().get())) {
      gtk_container_add(GTK_CONTAINER(window), root->widget());
    }
    windows_[&presented] = GTK_WINDOW(window);
    gtk_widget_show_all(window);
  }

  void hide(platform::ui::ViewController& presented, bool /*animated*/) override {
    auto it = windows_.find(&presented);
    if (it == windows_.end()) return;
    GtkWindow* window = it->second;
    windows_.erase(it);
    // The views outlive the window: take the root's widget back out before it goes.
    if (auto* root = dynamic_cast<Widget*>(presented.view().get())) {
      gtk_container_remove(GTK_CONTAINER(window), root->widget());
    }
    gtk_widget_destroy(GTK_WIDGET(window));
  }

 private:
  GtkWindow* host_;
  const std::unique_ptr<detail::MessageContent> content_;
  std::shared_ptr<platform::ui::Window> window_;
  std::map<const platform::ui::ViewController*, GtkWindow*> windows_;
};

std::weak_ptr<Toolkit>& installed() {
  static auto* toolkit = new std::weak_ptr<Toolkit>;
  return *toolkit;
}

gboolean runTask(gpointer data) {
  (*static_cast<platform::Task*>(data))();
  return G_SOURCE_REMOVE;
}

void deleteTask(gpointer data) {
  delete static_cast<platform::Task*>(data);
}

}  // namespace

std::shared_ptr<platform::ui::Application> install(GtkWindow* hostWindow) {
  auto toolkit = std::make_shared<Toolkit>(hostWindow);
  installed() = toolkit;
  platform::ui::Application::install(toolkit);
  // In order, at default priority: idle sources of one priority run in the order they were added.
  platform::SerialQueue::setMainExecutor([](platform::Task task) {
    g_idle_add_full(G_PRIORITY_DEFAULT, &runTask, new platform::Task(std::move(task)), &deleteTask);
  });
  return toolkit;
}

void setOpenURLHandler(std::function<bool(const std::string& url)> handler) {
  setOpenURLHandler(std::move(handler), nullptr);
}

void setOpenURLHandler(std::function<bool(const std::string& url)> handler,
                       std::function<bool(const std::string& url)> canOpen) {
  auto& slot = openURLHandler();
  std::lock_guard lock(slot.mutex);
  slot.canOpen = handler ? std::move(canOpen) : nullptr;
  slot.handler = std::move(handler);
}

GtkWindow* windowOf(const platform::ui::ViewController& controller) {
  auto toolkit = installed().lock();
  return toolkit ? toolkit->windowOf(controller) : nullptr;
}

WebKitWebView* webKitViewOf(const platform::ui::WebView& webView) {
  const auto* view = dynamic_cast<const WebKitView*>(&webView);
  return view ? view->webKitView() : nullptr;
}

bool saveScreenshot(GtkWindow* window, const std::string& path) {
  GdkWindow* surface = window ? gtk_widget_get_window(GTK_WIDGET(window)) : nullptr;
  if (!surface) return false;
  GdkPixbuf* pixels = gdk_pixbuf_get_from_window(surface, 0, 0, gdk_window_get_width(surface),
                                                 gdk_window_get_height(surface));
  if (!pixels) return false;
  const gboolean saved = gdk_pixbuf_save(pixels, path.c_str(), "png", nullptr, nullptr);
  g_object_unref(pixels);
  return saved;
}

}  // namespace pelora::gtk
