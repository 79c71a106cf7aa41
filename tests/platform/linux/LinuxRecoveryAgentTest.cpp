#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "platform/linux/LinuxRecoveryAgent.h"
#include "tests/doubles/RecordingSystemLog.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using namespace std::literals;

class LinuxRecoveryAgentTest : public testing::Test {
 protected:
  LinuxRecoveryAgentTest() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends), 0);
    ours_.reset(ends[0]);
    kernel_.reset(ends[1]);
    // Neither bus of the machine that runs the test.
    scratch_.makeDirectory("sys/bus/usb/devices");
    scratch_.makeDirectory("sys/bus/thunderbolt/devices");
  }
  std::string device(const std::string& path, const std::string& content) const {
    return scratch_.write("sys/bus/" + path + "/authorized", content);
  }
  static std::string contentOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void announce(const std::string& lines) {
    const std::string text = "add@/devices/x\0"s + lines + '\0';
    EXPECT_GT(::send(kernel_.get(), text.data(), text.size(), 0), 0);
  }

  const ScratchTree scratch_;
  RecordingSystemLog log_;
  FileDescriptor ours_, kernel_;
  int opened_ = 0;
  LinuxRecoveryAgent agent_{scratch_.tree(), log_, [this] {
                              ++opened_;
                              return FileDescriptor(::dup(ours_.get()));
                            }};
};

TEST_F(LinuxRecoveryAgentTest, LetsInWhatIsShutOut) {
  const std::string shut = device("usb/devices/1-1", "0\n"),
                    open = device("usb/devices/usb1", "1\n"),
                    key = device("thunderbolt/devices/0-1", "2\n"),
                    dock = device("thunderbolt/devices/0-3", "0\n");
  QSError error;
  EXPECT_TRUE(agent_.enableAutomaticApproval(&error)) << error.description();
  EXPECT_EQ(contentOf(shut)[0], '1');
  EXPECT_EQ(contentOf(dock)[0], '1');
  EXPECT_EQ(contentOf(open), "1\n");
  EXPECT_EQ(contentOf(key), "2\n");
}

TEST_F(LinuxRecoveryAgentTest, LetsInWhatComesLater) {
  EXPECT_TRUE(agent_.enableAutomaticApproval(nullptr));
  EXPECT_TRUE(agent_.enableAutomaticApproval(nullptr));
  EXPECT_EQ(opened_, 1);
  const std::string late = device("usb/devices/1-2", "0\n");
  announce("ACTION=remove\0SUBSYSTEM=usb"s);
  announce("ACTION=add\0SUBSYSTEM=block"s);
  announce("ACTION=add\0SUBSYSTEM=usb"s);
  while (contentOf(late)[0] != '1')
    std::this_thread::yield();
}

TEST_F(LinuxRecoveryAgentTest, OnlyTellsWithoutApproval) {
  const std::string early = device("usb/devices/1-1", "0\n");
  EXPECT_TRUE(agent_.enableAutomaticApproval(nullptr));
  EXPECT_TRUE(agent_.enableNotifications(nullptr));  // takes the approval back
  const std::string late = device("usb/devices/1-2", "0\n");
  announce("ACTION=add\0SUBSYSTEM=usb"s);
  while (log_.lines().empty())
    std::this_thread::yield();
  EXPECT_EQ(log_.lines()[0], (LogLine{118, "An accessory waits for approval: " + late}));
  EXPECT_EQ(contentOf(late), "0\n");
}

TEST_F(LinuxRecoveryAgentTest, SaysWhatCouldNotBeLetIn) {
  const std::string fine = device("usb/devices/1-2", "0\n");
  // Reads as "0", takes no "1", not even of root.
  scratch_.link("sys/bus/usb/devices/1-1/authorized", "/proc/self/personality");
  QSError error;
  EXPECT_FALSE(agent_.enableAutomaticApproval(&error));
  EXPECT_NE(error.code, 0);
  EXPECT_EQ(error.filePath, scratch_.at("sys/bus/usb/devices/1-1/authorized"));
  EXPECT_EQ(contentOf(fine)[0], '1');
}

TEST_F(LinuxRecoveryAgentTest, SaysWhenTheWatchCannotBeHad) {
  LinuxRecoveryAgent blind(scratch_.tree(), log_, [] {
    errno = EMFILE;
    return FileDescriptor();
  });
  const std::string shut = device("usb/devices/1-1", "0\n");
  QSError error;
  EXPECT_FALSE(blind.enableAutomaticApproval(&error));
  EXPECT_EQ(error.code, EMFILE);
  EXPECT_EQ(contentOf(shut)[0], '1');
}

TEST_F(LinuxRecoveryAgentTest, SaysWhenThereIsNoBus) {
  const ScratchTree none;
  none.link("sys/bus", "/dev/null");
  LinuxRecoveryAgent agent(none.tree(), log_, [] { return FileDescriptor(); });
  QSError error;
  EXPECT_FALSE(agent.enableNotifications(&error));
  EXPECT_EQ(error.code, ENOSYS);
  EXPECT_FALSE(agent.enableAutomaticApproval(nullptr));
}

}  // namespace
}  // namespace quillsift
