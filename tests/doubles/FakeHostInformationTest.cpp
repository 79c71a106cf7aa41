#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "tests/doubles/FakeHostInformation.h"

namespace quillsift {
namespace {

class FakeHostInformationTest : public testing::Test {
 protected:
  FakeHostInformation host_;
};

TEST_F(FakeHostInformationTest, AControlIsReadLikeTheRealCall) {
  host_.setControl("kern.name", "value");
  std::size_t length = 0;
  EXPECT_EQ(host_.systemControl("kern.name", nullptr, &length, nullptr, 0), 0);
  EXPECT_EQ(length, 5U);
  std::string buffer(8, '.');
  length = buffer.size();
  EXPECT_EQ(host_.systemControl("kern.name", buffer.data(), &length, nullptr, 0), 0);
  EXPECT_EQ(length, 5U);
  EXPECT_EQ(buffer, "value...");
  length = 4;
  EXPECT_EQ(host_.systemControl("kern.name", buffer.data(), &length, nullptr, 0), -1);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(host_.systemControl("kern.other", nullptr, &length, nullptr, 0), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FakeHostInformationTest, AControlIsSetAndItsFormerValueRead) {
  host_.setControl("kern.name", "old");
  std::string buffer(3, '.');
  std::size_t length = buffer.size();
  EXPECT_EQ(host_.systemControl("kern.name", buffer.data(), &length, "newer", 5), 0);
  EXPECT_EQ(buffer, "old");
  ASSERT_EQ(host_.controlWrites().size(), 1U);
  EXPECT_EQ(host_.controlWrites()[0].value, "newer");
  EXPECT_EQ(host_.systemControl("kern.name", nullptr, &length, nullptr, 0), 0);
  EXPECT_EQ(length, 5U);
}

TEST_F(FakeHostInformationTest, AKeptControlRecordsWhatItIsSetTo) {
  host_.setControl("kern.name", "old");
  host_.keepControl("kern.name");
  std::size_t length = 0;
  EXPECT_EQ(host_.systemControl("kern.name", nullptr, &length, "newer", 5), 0);
  ASSERT_EQ(host_.controlWrites().size(), 1U);
  EXPECT_EQ(host_.controlWrites()[0].value, "newer");
  EXPECT_EQ(host_.systemControl("kern.name", nullptr, &length, nullptr, 0), 0);
  EXPECT_EQ(length, 3U);
}

TEST_F(FakeHostInformationTest, AControlMayChangeBetweenTwoCalls) {
  host_.setControl("kern.name", "old");
  host_.onControl([&](const std::string& name) { host_.setControl(name, "longer"); });
  std::size_t length = 0;
  EXPECT_EQ(host_.systemControl("kern.name", nullptr, &length, nullptr, 0), 0);
  EXPECT_EQ(length, 6U);
}

TEST_F(FakeHostInformationTest, TheClockAndControlsFailOnDemand) {
  timespec time{};
  EXPECT_EQ(host_.realTime(&time), 0);
  EXPECT_EQ(time.tv_sec, 1700000000);
  host_.failRealTime(EINVAL);
  EXPECT_EQ(host_.realTime(&time), -1);
  EXPECT_EQ(errno, EINVAL);
  host_.setControl("kern.name", "value");
  host_.failControl("kern.name", EPERM);
  std::size_t length = 0;
  EXPECT_EQ(host_.systemControl("kern.name", nullptr, &length, nullptr, 0), -1);
  EXPECT_EQ(errno, EPERM);
}

TEST_F(FakeHostInformationTest, AnExecutablePathIsCutAtTheLimit) {
  host_.setExecutablePath(7, "/usr/bin/x");
  EXPECT_EQ(host_.executablePath(7, 4), "/usr");
  EXPECT_EQ(host_.executablePath(7, 100), "/usr/bin/x");
  EXPECT_EQ(host_.executablePath(8, 100), "");
}

}  // namespace
}  // namespace quillsift
