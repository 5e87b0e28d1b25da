#include "net/LocalAddress.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "base/Log.h"

namespace velmora {

namespace {
constexpr const char* loopbackText = "127.0.0.1";
}  // namespace

std::string detectLocalIP() {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    logLine("Network", std::string("Could not list network interfaces: ") + std::strerror(errno) +
                           "; showing " + loopbackText);
    return loopbackText;
  }
  std::string address = detectLocalIP(list);
  ::freeifaddrs(list);
  return address;
}

std::string detectLocalIP(const ifaddrs* interfaces) {
  for (const ifaddrs* i = interfaces; i != nullptr; i = i->ifa_next) {
    const unsigned flags = i->ifa_flags;
    if (!(flags & IFF_UP) || !(flags & IFF_RUNNING) || (flags & IFF_LOOPBACK)) continue;
    if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
    char host[NI_MAXHOST];
    if (::getnameinfo(i->ifa_addr, sizeof(sockaddr_in), host, sizeof(host), nullptr, 0, NI_NUMERICHOST) != 0) {
      continue;
    }
    if (std::strncmp(host, "127.", 4) == 0) continue;
    return host;
  }
  return loopbackText;
}

bool isThisMachine(std::uint32_t address) {
  if (address == 0 || (address >> 24) == 127) return true;
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) return false;
  bool found = false;
  for (const ifaddrs* i = list; i != nullptr && !found; i = i->ifa_next) {
    if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET) continue;
    const auto* in = reinterpret_cast<const sockaddr_in*>(i->ifa_addr);
    found = ntohl(in->sin_addr.s_addr) == address;
  }
  ::freeifaddrs(list);
  return found;
}

}  // namespace velmora
