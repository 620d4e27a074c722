#include "rowOps.h"

#include "prefixRow.h"

namespace netdb {
namespace {

class PrefixRowOps : public Korvo::RowOpsBase {
 public:
  Korvo::RowFault check(const Korvo::byte_t* bytes, std::size_t length) const override {
    return Korvo::checkRow<PrefixLayout>(bytes, length, Korvo::RowRule::noHostBits);
  }
};

}  // namespace

Korvo::RowOps_p_t makeRowOps(const std::string& tableName, unsigned char version) {
  if (tableName != prefixTable || version != prefixVersion) return nullptr;
  return std::make_shared<PrefixRowOps>();
}

}  // namespace netdb
