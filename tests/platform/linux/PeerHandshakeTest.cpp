#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/linux/PeerHandshake.h"

namespace quillsift::testing {
namespace {

using Verdict = PeerHandshake::Verdict;
using namespace std::string_literals;

std::vector<Verdict> verdicts(const std::vector<std::string>& lines, uid_t peer = 1000) {
  PeerHandshake handshake(peer);
  std::vector<Verdict> result;
  for (const std::string& line : lines) {
    const std::string ended = (result.empty() ? "\0"s : ""s) + line + "\r\n";
    std::string_view view = ended;
    result.push_back(handshake.next(&view));
    EXPECT_EQ(view, line + "\r\n");
  }
  return result;
}

using Verdicts = std::vector<Verdict>;

TEST(PeerHandshakeTest, ForwardsWhatAPeerSaysOfItself) {
  // 31303030 is 1000.
  EXPECT_EQ(verdicts({"AUTH EXTERNAL 31303030", "NEGOTIATE_UNIX_FD", "BEGIN"}),
            (Verdicts{Verdict::forward, Verdict::forward, Verdict::last}));
  EXPECT_EQ(verdicts({"AUTH EXTERNAL", "DATA", "BEGIN"}),
            (Verdicts{Verdict::forward, Verdict::forward, Verdict::last}));
  EXPECT_EQ(verdicts({"AUTH EXTERNAL", "DATA 31303030"}),
            (Verdicts{Verdict::forward, Verdict::forward}));
}

TEST(PeerHandshakeTest, RejectsEveryOtherIdentity) {
  EXPECT_EQ(verdicts({"AUTH EXTERNAL 30"}), (Verdicts{Verdict::reject}));
  EXPECT_EQ(verdicts({"AUTH EXTERNAL 3130303"}), (Verdicts{Verdict::reject}));
  EXPECT_EQ(verdicts({"AUTH EXTERNAL 31303030 "}), (Verdicts{Verdict::reject}));
  EXPECT_EQ(verdicts({"AUTH EXTERNAL", "DATA 30"}), (Verdicts{Verdict::forward, Verdict::reject}));
}

TEST(PeerHandshakeTest, RejectsEveryOtherMechanism) {
  EXPECT_EQ(verdicts({"AUTH"}), (Verdicts{Verdict::reject}));
  EXPECT_EQ(verdicts({"AUTH ANONYMOUS"}), (Verdicts{Verdict::reject}));
  EXPECT_EQ(verdicts({"AUTH DBUS_COOKIE_SHA1 31303030", "AUTH EXTERNAL 31303030"}),
            (Verdicts{Verdict::reject, Verdict::forward}));
}

TEST(PeerHandshakeTest, GivesUpAPeerThatDoesNotOpenWithANul) {
  PeerHandshake handshake(0);
  std::string_view line = "AUTH EXTERNAL\r\n";
  EXPECT_EQ(handshake.next(&line), Verdict::giveUp);
}

TEST(PeerHandshakeTest, GivesUpAPeerThatNeverComesToAnEnd) {
  const auto all = verdicts(std::vector<std::string>(PeerHandshake::kMaximumLines + 1, "ERROR"));
  EXPECT_EQ(all[PeerHandshake::kMaximumLines - 1], Verdict::forward);
  EXPECT_EQ(all[PeerHandshake::kMaximumLines], Verdict::giveUp);
}

}  // namespace
}  // namespace quillsift::testing
