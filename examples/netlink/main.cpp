// Publishes this machine's interfaces, addresses, routes and neighbours.
//
//   netlink ADDRESS [RECEIVE_BUFFER]     unix:/run/korvo/netlink, say

#include <csignal>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include "agent.h"

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::cerr << "usage: netlink ADDRESS [RECEIVE_BUFFER]\n";
    return 2;
  }
  try {
    const auto loop = std::make_shared<Korvo::EventLoop>("netlink");
    loop->stopOnSignals({SIGINT, SIGTERM});
    const netlink::Agent agent(loop, argv[1], argc > 2 ? std::stoi(argv[2]) : 0);
    loop->run();
  } catch (const std::exception& error) {
    std::cerr << "netlink: " << error.what() << '\n';
    return 1;
  }
}
