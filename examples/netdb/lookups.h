#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "agent.h"
#include "prefixRow.h"

namespace netdb {

/// Looks up the addresses in their order and tells the number of each with the row of the most
/// specific prefix that contains it, or a null row.
void lookUp(Agent& agent, PrefixTable& table, const std::vector<Korvo::IpGenAddr>& addrs,
            const std::function<void(std::size_t number, const PrefixRow& row)>& found);

}  // namespace netdb
