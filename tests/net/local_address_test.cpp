// detectLocalIP over made-up interface lists in the getifaddrs layout.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <vector>

#include "net/LocalAddress.h"

namespace velmora {
namespace {

constexpr unsigned upAndRunning = IFF_UP | IFF_RUNNING;

struct Interface {
  const char* name;
  unsigned flags;
  int family;  // AF_INET, AF_INET6, or 0 for an entry without an address
  const char* address;
};

// The entries of a made-up list and their addresses, linked in the order given.
struct FakeList {
  std::vector<ifaddrs> entries;
  std::vector<sockaddr_in6> addresses;  // room for either family

  explicit FakeList(const std::vector<Interface>& rows) : entries(rows.size()), addresses(rows.size()) {
    for (std::size_t i = 0; i < rows.size(); ++i) {
      ifaddrs& e = entries[i];
      e.ifa_name = const_cast<char*>(rows[i].name);
      e.ifa_flags = rows[i].flags;
      e.ifa_next = i + 1 < rows.size() ? &entries[i + 1] : nullptr;
      if (rows[i].family == 0) continue;
      sockaddr_in6& a = addresses[i];
      a.sin6_family = static_cast<sa_family_t>(rows[i].family);
      void* bytes = rows[i].family == AF_INET ? static_cast<void*>(&reinterpret_cast<sockaddr_in*>(&a)->sin_addr)
                                              : static_cast<void*>(&a.sin6_addr);
      inet_pton(rows[i].family, rows[i].address, bytes);
      e.ifa_addr = reinterpret_cast<sockaddr*>(&a);
    }
  }
};

// The first IPv4 address of an interface that is up and running, not
// loopback and not 127.x; loopback text when there is none.
TEST(LocalAddressTest, FirstQualifyingAddressWinsOrLoopbackText) {
  EXPECT_EQ(detectLocalIP(nullptr), "127.0.0.1");
  const FakeList loopbackAndIPv6({{"lo", upAndRunning | IFF_LOOPBACK, AF_INET, "127.0.0.1"},
                                  {"lo", upAndRunning | IFF_LOOPBACK, AF_INET6, "::1"},
                                  {"eth0", upAndRunning, AF_INET6, "fe80::1"},
                                  {"eth0", upAndRunning, AF_INET6, "2001:db8::5"}});
  const FakeList skipped({{"tun0", upAndRunning, 0, nullptr},
                          {"eth0", IFF_RUNNING, AF_INET, "192.168.1.10"},  // not up
                          {"eth1", IFF_UP, AF_INET, "192.168.1.11"},       // not running
                          {"lo", upAndRunning | IFF_LOOPBACK, AF_INET, "10.1.1.1"},
                          {"virbr0", upAndRunning, AF_INET, "127.0.1.1"},
                          {"wlan0", upAndRunning, AF_INET6, "fe80::2"},
                          {"wlan0", upAndRunning, AF_INET, "192.168.178.23"}});
  const FakeList twoGood({{"eth0", upAndRunning, AF_INET, "10.0.0.2"},  //
                          {"wlan0", upAndRunning, AF_INET, "192.168.1.7"}});
  EXPECT_EQ(detectLocalIP(loopbackAndIPv6.entries.data()), "127.0.0.1");
  EXPECT_EQ(detectLocalIP(skipped.entries.data()), "192.168.178.23");
  EXPECT_EQ(detectLocalIP(twoGood.entries.data()), "10.0.0.2");
}

}  // namespace
}  // namespace velmora
