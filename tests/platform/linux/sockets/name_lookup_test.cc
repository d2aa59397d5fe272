#include "platform/linux/sockets/name_lookup.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

namespace kestrun::platform {
namespace {

constexpr char kHosts[] =
    "# 192.0.2.9 commented\n"
    "\n127.0.0.1\tlocalhost\r\n"
    "::1 localhost six\n"
    "192.0.2.1  Build.example build   # not-this\n"
    "192.0.2.2 build\n"
    "192.0.2.3\n"
    "300.0.2.4 broken";

std::string AddressesOf(const std::string& name) {
  std::string text;
  for (const ::in_addr& address : FindAddresses(kHosts, name)) text += std::string(inet_ntoa(address)) + " ";
  return text;
}

std::string NameOf(const char* address) {
  return FindName(kHosts, {inet_addr(address)});
}

TEST(NameLookup, ReadsAHostsFile) {
  EXPECT_EQ(AddressesOf("localhost"), "127.0.0.1 ");
  EXPECT_EQ(AddressesOf("BUILD"), "192.0.2.1 192.0.2.2 ");
  EXPECT_EQ(AddressesOf("build.example"), "192.0.2.1 ");
  for (const char* name : {"buil", "six", "commented", "not-this", "192.0.2.3", "broken", ""}) {
    EXPECT_EQ(AddressesOf(name), "") << name;
  }
  EXPECT_EQ(NameOf("192.0.2.1"), "Build.example");
  for (const char* address : {"192.0.2.3", "192.0.2.9", "0.0.0.0"}) EXPECT_EQ(NameOf(address), "") << address;
}

TEST(NameLookup, NeedsNoServerForWhatIsPlain) {
  ASSERT_EQ(LookUpAddresses("192.0.2.7").size(), 1u);
  EXPECT_EQ(LookUpAddresses("192.0.2.7")[0].s_addr, inet_addr("192.0.2.7"));
  ASSERT_FALSE(LookUpAddresses("localhost").empty());
  EXPECT_EQ(LookUpAddresses("localhost")[0].s_addr, inet_addr("127.0.0.1"));
  EXPECT_TRUE(LookUpAddresses("no host of this name").empty());
}

}  // namespace
}  // namespace kestrun::platform
