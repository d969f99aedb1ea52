// Builds and links against the installed toolkit; needs no display to run: prints 42.
#include <iostream>

#include <pelora/pelora.hpp>
#include <pelora/platform/gtk/gtk_toolkit.hpp>

int main() {
  pelora::gtk::setOpenURLHandler([](const std::string&) { return true; });
  std::cout << (pelora::gtk::windowOf(pelora::platform::ui::ViewController()) == nullptr ? 42 : 0)
            << "\n";
}
