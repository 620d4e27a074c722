// Uses the component EtcdTables, and through it the tables and the event loop. A server is not
// needed: what is asked for is told to be nowhere.

#include <Korvo/EtcdTables.h>
#include <Korvo/EventLoop.h>
#include <Korvo/TableBrowser.h>

#include <iostream>
#include <memory>
#include <string>

int main() {
  Korvo::EtcdEngine::add();
  const auto loop = std::make_shared<Korvo::EventLoop>("viewer");
  Korvo::TableBrowser browser("etcd://127.0.0.1:1/net/agent", loop);
  browser.onAnswer([&](const Korvo::PublisherInfo& info) {
    std::cout << info.name << '\n';
    loop->stop();
  });
  browser.onFailure([&](const std::string& text) {
    std::cout << "nobody at " << text.substr(0, text.find(": ")) << '\n';
    loop->stop();
  });
  browser.ask();
  loop->run();
}
