#include "port.h"

#include <iostream>

int main() {
  Port port;
  port.create(1001);
  port.set<"name">("eth0");
  std::cout << port.toJson() << '\n';
}
