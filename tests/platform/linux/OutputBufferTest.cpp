#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <new>
#include <span>
#include <vector>

#include "platform/linux/OutputBuffer.h"
#include "tests/platform/linux/ResourceLimit.h"

namespace quillsift {
namespace {

constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * kKiB;

constexpr std::size_t kLongest = 4 * kMiB + 5;

// Bytes that differ from place to place.
std::span<const std::byte> pattern() {
  static const std::vector<std::uint32_t> words = [] {
    std::vector<std::uint32_t> made(kLongest / sizeof(std::uint32_t) + 1);
    std::uint32_t word = 1;
    for (std::uint32_t& place : made)
      place = word = word * 1664525U + 1013904223U;
    return made;
  }();
  return std::as_bytes(std::span(words));
}

void fill(OutputBuffer* buffer, std::size_t length, std::size_t step) {
  while (buffer->length() < length) {
    const std::span<std::byte> room = buffer->room();
    ASSERT_FALSE(room.empty());
    const std::size_t count = std::min({room.size(), step, length - buffer->length()});
    std::memcpy(room.data(), pattern().subspan(buffer->length()).data(), count);
    buffer->commit(count);
  }
}

void expectFilled(const QSData& data, std::size_t length) {
  ASSERT_EQ(data.length(), length);
  if (length != 0) {
    EXPECT_EQ(std::memcmp(data.bytes().data(), pattern().data(), length), 0);
  }
}

// The interesting lengths are those around a change of the place where the bytes are.
class OutputBufferLengthTest : public testing::TestWithParam<std::size_t> {};

TEST_P(OutputBufferLengthTest, HandsOutWhatWasPutIn) {
  for (const std::size_t step : {std::size_t{4093}, 3 * kMiB}) {
    OutputBuffer buffer;
    fill(&buffer, GetParam(), step);
    expectFilled(buffer.take(), GetParam());
    EXPECT_EQ(buffer.length(), 0U);
    EXPECT_EQ(buffer.take().length(), 0U);
  }
}

TEST_P(OutputBufferLengthTest, HandsItOutWithoutAMemoryFileToo) {
  const DescriptorShortage none(0);
  OutputBuffer buffer;
  fill(&buffer, GetParam(), 3 * kMiB);
  expectFilled(buffer.take(), GetParam());
}

TEST_P(OutputBufferLengthTest, HoldsNoDescriptorAfterwards) {
  const std::size_t before = openDescriptors();
  std::vector<QSData> held;
  for (int count = 0; count < 10; ++count) {
    OutputBuffer buffer;
    fill(&buffer, GetParam(), 3 * kMiB);
    held.push_back(buffer.take());
  }
  EXPECT_EQ(openDescriptors(), before);
  for (const QSData& data : held)
    expectFilled(data, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Lengths, OutputBufferLengthTest,
                         testing::Values(0, 1, 4096, 64 * kKiB - 1, 64 * kKiB, 64 * kKiB + 1,
                                         256 * kKiB, 256 * kKiB + 1, kMiB - 1, kMiB, kMiB + 1,
                                         4 * kMiB, kLongest));

TEST(OutputBufferTest, CanBeUsedAgain) {
  OutputBuffer buffer;
  for (const std::size_t length : {3 * kMiB, std::size_t{10}, 100 * kKiB}) {
    fill(&buffer, length, kMiB);
    expectFilled(buffer.take(), length);
  }
}

TEST(OutputBufferTest, CanBeDroppedAtEveryStage) {
  const std::size_t before = openDescriptors();
  for (const std::size_t length : {10 * kKiB, 100 * kKiB, 3 * kMiB}) {
    OutputBuffer buffer;
    fill(&buffer, length, kMiB);
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST(OutputBufferTest, SaysThatThereIsNoRoomLeft) {
  const auto before = std::signal(SIGXFSZ, SIG_IGN);
  {
    const ResourceLimit smallFiles(RLIMIT_FSIZE, 2 * kMiB);
    OutputBuffer buffer;
    EXPECT_THROW(fill(&buffer, 4 * kMiB, kMiB), std::bad_alloc);
  }
  std::signal(SIGXFSZ, before);
}

}  // namespace
}  // namespace quillsift
