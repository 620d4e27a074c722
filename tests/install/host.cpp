// A program of a user that touches every part of the library, for hosts with settings of their own.

#include <Korvo/KoStrUtils.h>
#include <Korvo/KorvoApi.h>
#include <Korvo/Scheduler.h>
#include <Korvo/rowCheck.h>
#include <Korvo/version.h>

#include <iostream>
#include <string>
#include <vector>

static_assert(KORVO_VERSION >= 10000 && KORVO_VERSION_MAJOR == 1);

namespace {

using FileLayout = Korvo::RowLayout<2, Korvo::Column<"path", std::string>>;
using RouteLayout = Korvo::RowLayout<1, Korvo::Column<"metric", std::uint32_t>,
                                     Korvo::Column<"net", Korvo::IpGenPrefix>,
                                     Korvo::Column<"tags", std::vector<std::string>>,
                                     Korvo::Column<"origin", Korvo::Nested<FileLayout>>>;
using Route = Korvo::TableRow<RouteLayout>;

struct Greeter : Korvo::Schedulable {
  using Schedulable::Schedulable;
  void run(bool) override { std::cout << name() << '\n'; }
};

void rows() {
  Korvo::TableRow<FileLayout> file;
  file.create(1);
  file.set<"path">("/etc/routes");
  Route route;
  route.create(7);
  route.set<"net">(Korvo::IpGenPrefix("10.0.0.0/8"));
  route.set<"tags">({"static", "core"});
  route.set<"origin">(file);
  std::cout << route.toJson() << ' '
            << !Korvo::checkRow<RouteLayout>(route.rowBuf(), route.rowLength()) << '\n';
}

void texts() {
  std::vector<std::string> words;
  Korvo::splitString("one two", ' ', words);
  std::cout << words.size() << ' ' << Korvo::KoStrUtils::canonicalize("a  /* b */ c") << '\n';
}

void units() {
  const Korvo::KoPtr<Korvo::Scheduler> scheduler(new Korvo::Scheduler("main"));
  Greeter greeter("greeter", scheduler);
  greeter.clientReadyIs(true);
  greeter.runnableIs(true);
  scheduler->run(0, 0.0, true);
}

void registry() {
  Korvo::sysnameIs("alpha");
  std::cout << Korvo::sysname() << ' ' << Korvo::isInfrastructureTable("korvo/koCtrl/query")
            << '\n';
}

void errors() {
  try {
    const Korvo::IpGenPrefix refused("10.0.0.0/33");
    std::cout << refused << '\n';
  } catch (const Korvo::KoBaseException& error) {
    std::cout << error.name() << ": " << error.what() << '\n';
  }
}

}  // namespace

int main() {
  rows();
  texts();
  units();
  registry();
  errors();
}
