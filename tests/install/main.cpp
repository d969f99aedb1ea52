// Builds against an installed libpelora through the umbrella header only.
#include <pelora/pelora.hpp>

#include <iostream>

int main() {
  std::cout << pelora::Decimal(42).toString() << '\n';
  return 0;
}
