#include "lookups.h"

namespace netdb {
namespace {

using Found = std::function<void(std::size_t, const PrefixRow&)>;

class Lookups : public Unit {
 public:
  Lookups(Agent& agent, PrefixTable& table, const std::vector<Korvo::IpGenAddr>& addrs,
          const Found& found)
      : Unit("lookups", agent),
        byPrefix_(table.longestPrefix<"prefix">()),
        addrs_(addrs),
        found_(found) {
    runnableIs(!addrs.empty());
  }

 private:
  void run(bool) override {
    do {
      found_(next_, byPrefix_.find(addrs_[next_]));
      ++next_;
    } while (next_ != addrs_.size() && !shouldYield());
    runnableIs(next_ != addrs_.size());
  }

  const Korvo::PrefixIndex<PrefixRow, "prefix">& byPrefix_;
  const std::vector<Korvo::IpGenAddr>& addrs_;
  const Found& found_;
  std::size_t next_ = 0;
};

}  // namespace

void lookUp(Agent& agent, PrefixTable& table, const std::vector<Korvo::IpGenAddr>& addrs,
            const Found& found) {
  const Lookups lookups(agent, table, addrs, found);
  agent.run(true);
}

}  // namespace netdb
