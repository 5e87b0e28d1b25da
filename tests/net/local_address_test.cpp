// detectLocalIP over made-up interface lists in the getifaddrs layout.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <deque>
#include <string>

#include "net/LocalAddress.h"

namespace velmora {
namespace {

constexpr unsigned upAndRunning = IFF_UP | IFF_RUNNING;

// Owns the entries and addresses of a fake list; entries link in the order
// they were added.
class FakeInterfaces {
 public:
  FakeInterfaces& ipv4(const char* name, unsigned flags, const char* address) {
    sockaddr_in& a = v4_.emplace_back();
    a.sin_family = AF_INET;
    inet_pton(AF_INET, address, &a.sin_addr);
    return add(name, flags, reinterpret_cast<sockaddr*>(&a));
  }
  FakeInterfaces& ipv6(const char* name, unsigned flags, const char* address) {
    sockaddr_in6& a = v6_.emplace_back();
    a.sin6_family = AF_INET6;
    inet_pton(AF_INET6, address, &a.sin6_addr);
    return add(name, flags, reinterpret_cast<sockaddr*>(&a));
  }
  FakeInterfaces& noAddress(const char* name, unsigned flags) { return add(name, flags, nullptr); }
  const ifaddrs* list() const { return entries_.empty() ? nullptr : &entries_.front(); }

 private:
  FakeInterfaces& add(const char* name, unsigned flags, sockaddr* address) {
    ifaddrs& e = entries_.emplace_back();
    e.ifa_name = const_cast<char*>(name);
    e.ifa_flags = flags;
    e.ifa_addr = address;
    if (entries_.size() > 1) entries_[entries_.size() - 2].ifa_next = &e;
    return *this;
  }
  std::deque<ifaddrs> entries_;
  std::deque<sockaddr_in> v4_;
  std::deque<sockaddr_in6> v6_;
};

// The first IPv4 address of an interface that is up and running, not
// loopback and not 127.x; loopback text when there is none.
TEST(LocalAddressTest, FirstQualifyingAddressWinsOrLoopbackText) {
  EXPECT_EQ(detectLocalIP(nullptr), "127.0.0.1");
  FakeInterfaces loopbackAndIPv6, skipped, twoGood;
  loopbackAndIPv6.ipv4("lo", upAndRunning | IFF_LOOPBACK, "127.0.0.1")
      .ipv6("lo", upAndRunning | IFF_LOOPBACK, "::1")
      .ipv6("eth0", upAndRunning, "fe80::1")
      .ipv6("eth0", upAndRunning, "2001:db8::5");
  skipped.noAddress("tun0", upAndRunning)
      .ipv4("eth0", IFF_RUNNING, "192.168.1.10")  // not up
      .ipv4("eth1", IFF_UP, "192.168.1.11")       // not running
      .ipv4("lo", upAndRunning | IFF_LOOPBACK, "10.1.1.1")
      .ipv4("virbr0", upAndRunning, "127.0.1.1")
      .ipv6("wlan0", upAndRunning, "fe80::2")
      .ipv4("wlan0", upAndRunning, "192.168.178.23");
  twoGood.ipv4("eth0", upAndRunning, "10.0.0.2").ipv4("wlan0", upAndRunning, "192.168.1.7");
  EXPECT_EQ(detectLocalIP(loopbackAndIPv6.list()), "127.0.0.1");
  EXPECT_EQ(detectLocalIP(skipped.list()), "192.168.178.23");
  EXPECT_EQ(detectLocalIP(twoGood.list()), "10.0.0.2");
}

}  // namespace
}  // namespace velmora
