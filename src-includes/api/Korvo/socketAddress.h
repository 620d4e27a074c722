#pragma once

// Addresses from the system's socket calls, and for them.
//
//   sockaddr_storage peer;
//   socklen_t length = sizeof peer;
//   getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length);
//   std::cout << Korvo::addressFromSockaddr(&peer, length) << '\n';
//
// Pure functions: safe from any thread.

#include <Korvo/korvo_types.h>

#include <sys/socket.h>

namespace Korvo {

/// The address of a sockaddr_in or sockaddr_in6 of `length` bytes; a scope or flow is not kept.
/// Throws KoInvalidArgument "Invalid Socket Address - (reason)" for another family and for fewer
/// bytes than the family's.
KORVO_API IpGenAddr addressFromSockaddr(const void* from, socklen_t length);
/// Its port, in the host's byte order; throws the same.
KORVO_API std::uint16_t portFromSockaddr(const void* from, socklen_t length);

/// Writes the sockaddr_in or sockaddr_in6 of an address and a port (in the host's byte order) to
/// `to` and returns its length. Throws KoInvalidArgument for an address without a family; `to` is
/// then as before.
KORVO_API socklen_t addressToSockaddr(const IpGenAddr& addr, std::uint16_t port,
                                      sockaddr_storage& to);

}  // namespace Korvo
