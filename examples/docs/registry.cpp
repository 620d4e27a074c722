// What the guide shows of the registry.

#include <Korvo/KorvoApi.h>

#include <iostream>
#include <memory>
#include <string>

// The host defines this class: its operations on the rows of one table.
class Korvo::RowOpsBase {
 public:
  explicit RowOpsBase(const std::string& table) : table_(table) {}
  const std::string& table() const { return table_; }

 private:
  std::string table_;
};

int main() {
  Korvo::registerSysnameCallback("log", [](const std::string& from, const std::string& to) {
    std::cout << "system " << from << " is now " << to << '\n';
  });
  Korvo::sysnameIs("alpha");  // the first name: no callback
  Korvo::sysnameIs("beta");

  Korvo::rowOpsFactoryIs([](const std::string& table, unsigned char) {
    return std::make_shared<Korvo::RowOpsBase>(table);
  });
  std::cout << Korvo::getRowOps("net/port", 0)->table() << '\n';

  std::cout << Korvo::isInfrastructureTable("korvo/koCtrl/query")
            << Korvo::isInfrastructureTable("korvo/koCtrl/input/query")
            << Korvo::isInfrastructureTable("net/port") << '\n';
}
