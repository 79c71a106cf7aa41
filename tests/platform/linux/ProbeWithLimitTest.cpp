#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <new>
#include <stdexcept>

#include "platform/linux/ProbeWithLimit.h"
#include "tests/platform/linux/Gate.h"

namespace quillsift {
namespace {

using namespace std::chrono_literals;

constexpr auto kNever = 1h;  // only a hang takes that long

TEST(ProbeWithLimitTest, HandsOnWhatTheProbeSays) {
  ProbeWithLimit probe(
      [](const std::string& path) -> std::optional<VolumeFacts> {
        if (path == "/dev/bad") return std::nullopt;
        return VolumeFacts{.label = path};
      },
      kNever);
  EXPECT_EQ(probe("/dev/a")->label, "/dev/a");
  EXPECT_EQ(probe("/dev/bad"), std::nullopt);
}

TEST(ProbeWithLimitTest, LooksAgainEachTimeItIsAsked) {
  const auto looks = std::make_shared<std::atomic<int>>(0);
  ProbeWithLimit probe(
      [looks](const std::string&) { return VolumeFacts{.label = std::to_string(++*looks)}; },
      kNever);
  EXPECT_EQ(probe("/dev/a")->label, "1");
  EXPECT_EQ(probe("/dev/a")->label, "2");
}

TEST(ProbeWithLimitTest, TakesALookThatFailsForNone) {
  ProbeWithLimit probe(
      [](const std::string&) -> std::optional<VolumeFacts> { throw std::runtime_error("odd"); },
      kNever);
  EXPECT_EQ(probe("/dev/a"), std::nullopt);
  EXPECT_EQ(probe("/dev/a"), std::nullopt);
}

// The gates outlive the test: so may the thread of a look.
struct Hang {
  Gate begun, end, ended;
  std::atomic<int> looks = 0;
};

TEST(ProbeWithLimitTest, LeavesADeviceThatHangsBehindAndServesTheOthers) {
  const auto hang = std::make_shared<Hang>();
  ProbeWithLimit probe(
      [hang](const std::string& path) {
        if (path == "/dev/dying") {
          ++hang->looks;
          hang->end.pass();
          hang->ended.open();
        }
        return VolumeFacts{.label = path};
      },
      1ms);
  EXPECT_EQ(probe("/dev/dying"), std::nullopt);
  // Stuck as it is, it is not looked at a second time, nor waited for.
  EXPECT_EQ(probe("/dev/dying"), std::nullopt);
  hang->end.open();
  hang->ended.pass();
  EXPECT_EQ(hang->looks, 1);
}

TEST(ProbeWithLimitTest, AsksOthersWhileOneHangs) {
  const auto hang = std::make_shared<Hang>();
  ProbeWithLimit probe(
      [hang](const std::string& path) {
        if (path == "/dev/dying") {
          hang->begun.open();
          hang->end.pass();
        }
        return VolumeFacts{.label = path};
      },
      kNever);
  auto dying = std::async(std::launch::async, [&] { return probe("/dev/dying"); });
  hang->begun.pass();
  EXPECT_EQ(probe("/dev/a")->label, "/dev/a");
  hang->end.open();
  EXPECT_EQ(dying.get()->label, "/dev/dying");
}

TEST(ProbeWithLimitTest, LooksAgainAtADeviceThatCameBack) {
  const auto hang = std::make_shared<Hang>();
  ProbeWithLimit probe(
      [hang](const std::string&) {
        if (++hang->looks == 1) hang->end.pass();
        return VolumeFacts{.label = "back"};
      },
      100ms);
  EXPECT_EQ(probe("/dev/a"), std::nullopt);
  hang->end.open();
  std::optional<VolumeFacts> facts;
  while (!(facts = probe("/dev/a"))) {
  }
  EXPECT_EQ(facts->label, "back");
}

TEST(ProbeWithLimitTest, LosesOneLookWhenMemoryRunsOut) {
  ProbeWithLimit probe(
      [](const std::string&) -> std::optional<VolumeFacts> { throw std::bad_alloc(); }, kNever);
  EXPECT_EQ(probe("/dev/a"), std::nullopt);
}

}  // namespace
}  // namespace quillsift
