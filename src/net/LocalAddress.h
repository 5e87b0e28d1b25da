#pragma once
// This machine's IPv4 address as the operator should type it into the
// phone app: the first interface that is up, running, not loopback and has
// an IPv4 address not starting "127.", in the order the system lists them.
// "127.0.0.1" when there is none or the list cannot be read.

#include <cstdint>
#include <string>

struct ifaddrs;

namespace velmora {

// Lists the interfaces with getifaddrs. Any thread.
std::string detectLocalIP();

// Walks a given interface list (nullptr: none). Lets tests feed a made-up
// list in the getifaddrs layout.
std::string detectLocalIP(const ifaddrs* interfaces);

// True when an IPv4 address (host byte order) reaches this machine itself:
// the wildcard 0.0.0.0, anything in 127.0.0.0/8, or an address of one of its
// interfaces (listed now with getifaddrs). Any thread.
bool isThisMachine(std::uint32_t address);

}  // namespace velmora
