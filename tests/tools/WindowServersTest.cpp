#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/ScratchMachine.h"
#include "tools/WindowServers.h"

namespace quillsift::tools {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

class WindowServersTest : public testing::Test {
 protected:
  // Words of a command line, each with its terminator.
  void process(const std::string& number, const std::vector<std::string>& words,
               const std::string& user = "0") {
    std::string commandLine;
    for (const std::string& word : words)
      commandLine += word + '\0';
    machine_.file("/proc/" + number + "/cmdline", commandLine);
    machine_.file("/proc/" + number + "/status",
                  "Name:\tX\nUid:\t1\t" + user + "\t2\t3\nGid:\t4\t567\t5\t6\n");
  }
  std::vector<std::pair<std::string, std::string>> found() const {
    std::vector<std::pair<std::string, std::string>> servers;
    for (const WindowServer& server : windowServers(machine_.host()))
      servers.emplace_back(server.display, server.authorityFile);
    return servers;
  }

  ScratchMachine machine_;
};

TEST_F(WindowServersTest, AreFoundByTheirCommandLines) {
  process("10", {"/usr/bin/Xvfb", ":12", "-screen", "0", "64x64x24"});
  process("9", {"/usr/lib/xorg/Xorg", "-auth", "/run/auth file", ":2", "vt7"});
  process("8", {"X"});
  process("7", {"sh", "-c", "Xorg :5"});
  process("6", {});
  process("self", {"Xorg", ":6"});
  machine_.directory("/proc/5");
  EXPECT_THAT(found(), ElementsAre(Pair(":0", ""), Pair(":2", "/run/auth file"), Pair(":12", "")));
}

TEST_F(WindowServersTest, AreFoundByTheirSocketsWhenTheyChoseTheirDisplaysThemselves) {
  machine_.file("/proc/net/unix",
                "Num       RefCount Protocol Flags    Type St Inode Path\n"
                "0000000000000000: 00000002 00000000 00010000 0001 01 111 @/tmp/.X11-unix/X3\n"
                "0000000000000000: 00000002 00000000 00010000 0001 01    222 /tmp/.X11-unix/X14\n"
                "0000000000000000: 00000003 00000000 00000000 0001 03 333\n"
                "0000000000000000: 00000003 00000000 00000000 0001 03 444 /tmp/.X11-unix/Xother\n");
  process("10", {"Xorg", "-displayfd", "3", "-auth", "/run/a"});
  machine_.link("/proc/10/fd/1", "/dev/null");
  machine_.link("/proc/10/fd/5", "socket:[222]");
  process("11", {"Xvfb", "-displayfd", "1"});
  machine_.link("/proc/11/fd/0", "socket:[333]");
  machine_.link("/proc/11/fd/4", "socket:[111]");
  EXPECT_THAT(found(), ElementsAre(Pair(":3", ""), Pair(":14", "/run/a")));
}

TEST_F(WindowServersTest, AreNoneOnAMachineWithoutOne) {
  EXPECT_THAT(found(), IsEmpty());
  process("7", {"sshd"});
  EXPECT_THAT(found(), IsEmpty());
}

TEST_F(WindowServersTest, BelongToWhomTheKernelSays) {
  process("7", {"Xorg", ":1"}, "4711");
  process("8", {"Xorg", ":2"}, "?");
  machine_.file("/proc/9/cmdline", std::string("Xorg\0:3\0", 8));  // has ended meanwhile
  const auto servers = windowServers(machine_.host());
  ASSERT_THAT(servers, SizeIs(1));
  EXPECT_EQ(servers[0].display, ":1");
  EXPECT_EQ(servers[0].account.user, 4711U);
  EXPECT_EQ(servers[0].account.group, 567U);
}

TEST_F(WindowServersTest, AreNotCrowdedOutByWhatOneUserStarts) {
  for (int i = 0; i < 50; ++i)
    process(std::to_string(100 + i), {"Xvfb", ":" + std::to_string(i)}, "1000");
  process("7", {"Xorg", ":60"}, "0");
  process("8", {"Xorg", ":61"}, "1001");
  const auto servers = found();
  EXPECT_THAT(servers, SizeIs(kMostServersOfOneUser + 2));
  EXPECT_EQ(servers[0].first, ":0");
  EXPECT_EQ(servers[kMostServersOfOneUser].first, ":60");
  EXPECT_EQ(servers.back().first, ":61");
}

TEST_F(WindowServersTest, AreNotCrowdedOutByUsersOfNamespaces) {
  for (int i = 0; i < 50; ++i) {
    const std::string user = std::to_string(100'000 + i);
    process(std::to_string(100 + i), {"Xvfb", ":" + std::to_string(i)}, user);
  }
  process("7", {"Xorg", ":60"}, "1000");
  const auto servers = found();
  EXPECT_THAT(servers, SizeIs(kMostServers));
  EXPECT_EQ(servers.back().first, ":60");
}

TEST_F(WindowServersTest, AreNotMisledByOddWords) {
  process("1", {"Xorg", "-auth"});
  process("2", {"Xvfb", ":x", ":", ":7", "--"});
  EXPECT_THAT(found(), ElementsAre(Pair(":0", ""), Pair(":7", "")));
}

}  // namespace
}  // namespace quillsift::tools
