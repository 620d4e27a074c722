// What the page "Across machines" shows of reading: from a subscriber's table and from the cluster
// itself. It is compiled and not run: nobody serves its addresses.

#include <Korvo/EtcdReader.h>
#include <Korvo/EtcdTables.h>
#include <Korvo/EventLoop.h>
#include <Korvo/Table.h>
#include <Korvo/TableSubscriber.h>

#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

struct PortLayout : Korvo::RowLayout<7, Korvo::Column<"name", std::string>> {};
using Port = Korvo::TableRow<PortLayout>;

int main() {
  Korvo::EtcdEngine::add();
  auto loop = std::make_shared<Korvo::EventLoop>("viewer");
  loop->stopOnSignals({SIGINT, SIGTERM});
  Korvo::Table<Port> ports("net/port");
  Korvo::TableSubscriber agent("etcd://a:2379,b:2379,c:2379/net/portAgent", loop);
  agent.add(ports);

  if (const Port port = ports.find(1001); !port.isNull()) std::cout << port << '\n';

  Korvo::EtcdReader cluster("etcd://a:2379,b:2379,c:2379/net/portAgent", loop);
  cluster.row<Port>("net/port", 1001, [](const Korvo::EtcdAnswer<Port>& answer) {
    if (!answer) {
      std::cerr << answer.problem << '\n';
    } else if (answer.value.isNull()) {
      std::cout << "there is none\n";
    } else {
      std::cout << answer.value << (answer.isKept ? "\n" : ", as its publisher left it\n");
    }
  });
  cluster.rows<Port>("net/port", [](const Korvo::EtcdAnswer<std::vector<Port>>& answer) {
    for (const Port& port : answer.value) std::cout << port << '\n';
  });
  loop->run();
}
