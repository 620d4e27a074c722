#include "port.h"

#include <iostream>

int main() {
  net::Port port;
  port.create();
  port.set<"speed">(10000U);
  port.set<"name">("eth0");
  std::cout << port.toJson() << '\n';
}
