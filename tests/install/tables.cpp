// A program of a user of the installed tables: publishes one, and is a subscriber of it too.

#include <Korvo/Batch.h>
#include <Korvo/EventLoop.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableReader.h>
#include <Korvo/TableSubscriber.h>

#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

using PortLayout = Korvo::RowLayout<7, Korvo::Column<"name", std::string>>;
using Port = Korvo::TableRow<PortLayout>;

int main() {
  std::string folder = "/tmp/tables-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) return 1;
  const std::string address = "unix:" + folder + "/socket";

  const auto loop = std::make_shared<Korvo::EventLoop>("main");
  Korvo::Table<Port> ports("net/port");
  {
    Korvo::TablePublisher publisher("agent", loop);
    publisher.add(ports);
    publisher.listen(address);
    Korvo::Table<Port> copy("net/port");
    Korvo::TableSubscriber subscriber(address, loop);
    subscriber.add(copy);
    const Korvo::TableReader<Port> reader(copy, loop, [&loop](const Korvo::Changes<Port>& changes) {
      for (const Korvo::Change<Port>& change : changes) {
        std::cout << change.kind() << ' ' << change.after().view<"name">() << '\n';
        loop->activeIs(false);
      }
    });

    Port port;
    port.create(1001);
    port.set<"name">("eth0");
    Korvo::Batch batch(ports);
    batch.put(port);
    batch.commit();
    loop->run(0, 60.0, false);
  }
  return rmdir(folder.c_str()) == 0 ? 0 : 1;
}
