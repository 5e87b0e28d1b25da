// Subscription bookkeeping: the 32 cap, the 60 s lapse, reply ports per
// address.
#include "control/RemotePeers.h"

#include <gtest/gtest.h>

namespace velmora {
namespace {

TEST(RemotePeersTest, CapLapseAndReplyPorts) {
  RemotePeers peers;
  const std::uint32_t local = 0x7F000001;
  for (std::uint16_t i = 0; i < RemotePeers::maxSubscribers; ++i) EXPECT_TRUE(peers.subscribe({local, std::uint16_t(9000 + i)}, 0.0));
  EXPECT_FALSE(peers.subscribe({local, 8999}, 0.0));  // the 33rd
  EXPECT_TRUE(peers.subscribe({local, 9000}, 1.0));   // renewing is not a new one

  peers.heard({local, 9001}, 30.0);
  // 30 heard at 0, more than 60 s ago; then 9000 (renewed at 1); 9001, heard at 30, stays.
  EXPECT_EQ((std::tuple{peers.expire(60.5), peers.subscribers().size(), peers.expire(89.0),
                        peers.isSubscribed({local, 9001})}),
            std::tuple(30u, 2u, 1u, true));
  peers.unsubscribe({local, 9001});

  // One reply port per address, whatever port the sender used; two
  // subscriptions from that address then share one event target.
  peers.setReplyPort({local, 5000}, 53001, 100.0);
  EXPECT_EQ(std::pair(peers.replyTarget({local, 5001}).port, peers.replyTarget({0x7F000002, 5001}).port),
            (std::pair<std::uint16_t, std::uint16_t>(53001, 5001)));
  peers.subscribe({local, 5000}, 100.0);
  peers.subscribe({local, 5001}, 100.0);
  EXPECT_EQ(peers.eventTargets().size(), 1u);
  peers.setReplyPort({local, 5002}, 0, 100.0);
  EXPECT_EQ(peers.eventTargets().size(), 2u);
}

}  // namespace
}  // namespace velmora
