#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/JournalExportMessages.h"

namespace quillsift {
namespace {

using Kind = JournalExportMessage::Kind;

class JournalExportMessagesTest : public testing::Test {
 protected:
  JournalExportMessagesTest() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    child_.reset(ends[0]);
    daemon_.reset(ends[1]);
  }
  void send(Kind kind, const std::string& text, FileDescriptor descriptor = {}) {
    EXPECT_EQ(sendJournalExportMessage(
                  child_.get(), {.kind = kind, .text = text, .descriptor = std::move(descriptor)}),
              0);
  }
  static FileDescriptor fileWith(const std::string& text) {
    FileDescriptor file(::memfd_create("member", MFD_CLOEXEC));
    EXPECT_EQ(::pwrite(file.get(), text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    return file;
  }

  FileDescriptor child_, daemon_;
};

TEST_F(JournalExportMessagesTest, CarryAMembersFile) {
  send(Kind::member, "persist.export", fileWith("entries"));
  const auto message = receiveJournalExportMessage(daemon_.get());
  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->kind, Kind::member);
  EXPECT_EQ(message->text, "persist.export");
  char text[8] = {};
  EXPECT_EQ(::read(message->descriptor.get(), text, sizeof text), 7);
  EXPECT_STREQ(text, "entries");
  EXPECT_NE(::fcntl(message->descriptor.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(JournalExportMessagesTest, ComeOneByOneInOrder) {
  send(Kind::warning, "damaged");
  send(Kind::end, "110");
  auto message = receiveJournalExportMessage(daemon_.get());
  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->kind, Kind::warning);
  EXPECT_EQ(message->text, "damaged");
  EXPECT_FALSE(message->descriptor.valid());
  message = receiveJournalExportMessage(daemon_.get());
  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->kind, Kind::end);
  EXPECT_EQ(message->text, "110");
}

TEST_F(JournalExportMessagesTest, MayBeEmpty) {
  send(Kind::warning, "");
  const auto message = receiveJournalExportMessage(daemon_.get());
  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->text, "");
}

TEST_F(JournalExportMessagesTest, AreCutAtTheirLimit) {
  send(Kind::warning, std::string(100'000, 'x'));
  EXPECT_EQ(receiveJournalExportMessage(daemon_.get())->text.size(), kMostJournalExportText);
}

TEST_F(JournalExportMessagesTest, AreToldFromWhateverElseIsPrinted) {
  ASSERT_EQ(::write(child_.get(), "Assertion failed\n", 17), 17);
  const auto message = receiveJournalExportMessage(daemon_.get());
  ASSERT_TRUE(message.has_value());
  EXPECT_EQ(message->kind, Kind::other);
  EXPECT_EQ(message->text, "Assertion failed\n");
}

TEST_F(JournalExportMessagesTest, EndWithTheChild) {
  child_.reset();
  errno = EIO;
  EXPECT_FALSE(receiveJournalExportMessage(daemon_.get()).has_value());
  EXPECT_EQ(errno, 0);
}

TEST_F(JournalExportMessagesTest, SayWhenNobodyListens) {
  daemon_.reset();
  EXPECT_EQ(sendJournalExportMessage(child_.get(), {.kind = Kind::end, .text = "0"}), EPIPE);
}

TEST_F(JournalExportMessagesTest, SayWhenThereIsNoRoomForAFile) {
  send(Kind::member, "persist.export", fileWith("entries"));
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit none = before;
  none.rlim_cur = 0;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  const auto message = receiveJournalExportMessage(daemon_.get());
  const int code = errno;
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_FALSE(message.has_value());
  EXPECT_EQ(code, EMFILE);
}

}  // namespace
}  // namespace quillsift
