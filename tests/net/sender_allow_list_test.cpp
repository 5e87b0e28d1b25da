// Trusted senders: which entries an allow-list takes, which addresses it
// admits, and how the door of a listener counts and logs refusals.
#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "net/SenderAllowList.h"
#include "net/SenderFilter.h"

namespace velmora {
namespace {

std::uint32_t ip(const char* text) { return *SenderAllowList::parseAddress(text); }

TEST(SenderAllowListTest, EntriesAndWhatTheyAdmit) {
  std::vector<std::string> malformed;
  const auto list = SenderAllowList::parse({"192.168.1.20", " 10.0.0.0/8 ", "172.16.5.77/24", "127.0.0.1/32"}, &malformed);
  EXPECT_TRUE(malformed.empty());
  EXPECT_FALSE(list.acceptsEveryone());
  // 172.16.5.1 is admitted by 172.16.5.77/24: the block's host bits are ignored.
  const std::pair<const char*, bool> cases[] = {
      {"192.168.1.20", true}, {"192.168.1.21", false}, {"10.255.3.4", true}, {"11.0.0.1", false},
      {"172.16.5.1", true},   {"172.16.6.1", false},   {"127.0.0.1", true},  {"127.0.0.2", false}};
  for (const auto& [sender, admitted] : cases) EXPECT_EQ(list.allows(ip(sender)), admitted) << sender;
  EXPECT_TRUE(SenderAllowList::parse({"0.0.0.0/0"}).allows(ip("8.8.8.8")));
  // No list: everyone, as without the feature.
  EXPECT_TRUE(SenderAllowList().acceptsEveryone());
  EXPECT_TRUE(SenderAllowList::parse({}).allows(ip("203.0.113.9")));
}

TEST(SenderAllowListTest, MalformedEntriesAreReportedAndNeverOpenTheDoor) {
  std::vector<std::string> malformed;
  const auto list = SenderAllowList::parse(
      {"10.0.0.300", "10.0.0", "10.0.0.1.2", "host.example", "10.0.0.1/33", "10.0.0.1/", "-1.0.0.1", "", "10.0.0.9"},
      &malformed);
  ASSERT_EQ(malformed.size(), 8u);
  EXPECT_EQ(malformed[0], "\"10.0.0.300\": not an IPv4 address");
  EXPECT_EQ(malformed[4], "\"10.0.0.1/33\": the prefix length after \"/\" must be 0 to 32");
  EXPECT_EQ(list.blocks().size(), 1u);
  EXPECT_TRUE(list.allows(ip("10.0.0.9")));
  EXPECT_FALSE(list.allows(ip("10.0.0.1")));
  // Only typos: nobody is admitted.
  const auto typos = SenderAllowList::parse({"192.168.1.300"});
  EXPECT_FALSE(typos.acceptsEveryone());
  EXPECT_FALSE(typos.allows(ip("192.168.1.30")));
}

// A flood of spoofed senders: each refused address is logged once, up to
// maxLoggedSenders of them, and every refusal is counted. A new list forgets
// who was logged; the count goes on.
TEST(SenderFilterTest, RefusalsAreCountedAndLoggedOncePerSenderUpToALimit) {
  test::LogCapture log;
  SenderFilter filter("TrackingReceiver", "tracking data");
  const std::uint32_t base = ip("198.51.100.0");
  EXPECT_TRUE(filter.admit(base));  // no list yet
  filter.setAllowList(SenderAllowList::parse({"127.0.0.1"}));
  EXPECT_TRUE(filter.admit(ip("127.0.0.1")));
  const std::uint64_t refusals = 2 * (SenderFilter::maxLoggedSenders + 50);
  for (std::uint32_t i = 0; i < refusals; ++i) EXPECT_FALSE(filter.admit(base + i / 2 * 7));  // each sender twice
  EXPECT_EQ(filter.refusedCount(), refusals);
  EXPECT_EQ(log.lines().size(), SenderFilter::maxLoggedSenders);
  const std::string first = "[TrackingReceiver] Refused tracking data from 198.51.100.0 (not in the allowed senders)";
  EXPECT_EQ(log.lines().front(), first);

  log.clear();
  filter.setAllowList(SenderAllowList::parse({"10.1.2.0/24"}));
  EXPECT_TRUE(filter.admit(ip("10.1.2.3")));
  EXPECT_FALSE(filter.admit(base));
  EXPECT_EQ(filter.refusedCount(), refusals + 1);
  EXPECT_EQ(log.lines(), std::vector<std::string>{first});
}

}  // namespace
}  // namespace velmora
