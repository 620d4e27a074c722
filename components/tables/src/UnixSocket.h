#pragma once

// Unix-domain sockets of an event loop.

#include <Korvo/ByteStream.h>
#include <Korvo/Scheduler.h>

#include <memory>
#include <string>

namespace Korvo::detail {

/// The path of "unix:/run/korvo/portAgent". Throws KoInvalidArgument for another address, or a path
/// that is too long for a socket.
std::string socketPath(const std::string& address);

/// Listens there, with the rights of `mode`. What a former listener left behind is replaced; throws
/// std::system_error if one is there, or the path cannot be used.
std::shared_ptr<ByteListener> listenTo(const std::string& address, mode_t mode,
                                       const KoPtr<Scheduler>& loop);

std::shared_ptr<ByteConnector> connectorTo(const std::string& address,
                                           const KoPtr<Scheduler>& loop);

}  // namespace Korvo::detail
