#pragma once

// The publisher and the subscriber as agents of the system: their work is cut into units that run
// in time slices on one scheduler, which waits on the socket and never polls.

#include <functional>

#include "rowLink.h"
#include "rowSource.h"
#include "rowTable.h"

namespace netdb {

/// Whether the library was built with its event loop; the agents need it.
#ifdef NETDB_AGENTS
inline constexpr bool agentsAvailable = true;
#else
inline constexpr bool agentsAvailable = false;
#endif

/// Sends all rows of `source` and the end mark. `report` is called now and then.
void runPublisherAgent(RowSource& source, int socket, const std::function<void()>& report,
                       bool trace);

/// Receives rows until the publisher closes its end.
void runSubscriberAgent(int socket, Subscriber& subscriber, const std::function<void()>& report,
                        bool trace);

/// Looks up addresses and hands each result (null if there is none) to `found`, in order.
void runLookupAgent(const RowTable& table, const std::vector<Korvo::IpGenAddr>& addrs,
                    const std::function<void(std::size_t, const PrefixRow*)>& found, bool trace);

}  // namespace netdb
