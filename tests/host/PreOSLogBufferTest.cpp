#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include "host/PreOSLogBuffer.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kControl = "kern.preoslog";
const std::string kSignature = "uint8_t * _Nullable collect_pre_log_buffer(size_t * _Nullable): ";

std::string littleEndian(std::uint32_t number) {
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8)
    bytes += static_cast<char>(number >> shift);
  return bytes;
}

std::string header(std::uint32_t size, std::uint32_t position, bool wrapped) {
  return "POSL" + littleEndian(size) + littleEndian(position) + '\x7F' + (wrapped ? '\x01' : '\0');
}

std::string buffer(const std::string& ring, std::uint32_t position, bool wrapped) {
  return header(static_cast<std::uint32_t>(14 + ring.size()), position, wrapped) + ring;
}

class PreOSLogBufferTest : public testing::Test {
 protected:
  // Whatever errno a console leaves behind, the reason must survive it.
  PreOSLogBufferTest() {
    platform_.systemConsole().setErrnoAfterWrite(EBADF);
    platform_.hostInformation().keepControl(kControl);
  }

  void setLog(std::string value) {
    platform_.hostInformation().setControl(kControl, std::move(value));
  }
  // Runs `change` before the call of this number, counted from 1.
  void beforeCall(int number, std::function<void()> change) {
    platform_.hostInformation().onControl([this, number, change](const std::string&) {
      if (++calls_ == number) change();
    });
  }
  // The log, or none with errno.
  std::optional<std::string> collect() {
    std::size_t length = 4711;
    const std::unique_ptr<std::uint8_t, decltype(&std::free)> block(collect_pre_log_buffer(&length),
                                                                    std::free);
    if (block) return std::string(reinterpret_cast<const char*>(block.get()), length);
    const int code = errno;
    EXPECT_EQ(length, 4711U) << "touched by a failing call";
    errno = code;
    return std::nullopt;
  }
  // The reason of a failure; 0 for a log.
  int failure() {
    errno = 0;
    return collect() ? 0 : errno;
  }
  std::vector<LogLine> lines() { return platform_.systemLog().lines(); }
  static LogLine error(const std::string& message) {
    return {kInstallFacility + kLogError, kSignature + message};
  }

  TestPlatform platform_;
  int calls_ = 0;
};

TEST_F(PreOSLogBufferTest, GivesARingThatHasNotWrappedUpToItsLastByte) {
  setLog(buffer("firmware says hello....", 18, false));
  EXPECT_EQ(collect(), "firmware says hello");
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(PreOSLogBufferTest, GivesAWrappedRingOldestByteFirst) {
  setLog(buffer("newest|oldest..", 6, true));
  EXPECT_EQ(collect(), "oldest..newest|");
}

TEST_F(PreOSLogBufferTest, TakesEveryValueButZeroForWrapped) {
  for (const char wrapped : {'\x01', '\x02', '\x80', '\xFF'}) {
    std::string value = buffer("bcda", 2, false);
    value[13] = wrapped;
    setLog(value);
    EXPECT_EQ(collect(), "abcd") << static_cast<int>(wrapped);
  }
}

TEST_F(PreOSLogBufferTest, DoesNotReadTheByteBeforeTheFlag) {
  std::string value = buffer("abcd", 1, false);
  value[12] = '\xFF';
  setLog(value);
  EXPECT_EQ(collect(), "ab");
}

TEST_F(PreOSLogBufferTest, WorksWithoutAPlaceForTheLength) {
  setLog(buffer("abc", 2, false));
  const std::unique_ptr<std::uint8_t, decltype(&std::free)> block(collect_pre_log_buffer(nullptr),
                                                                  std::free);
  ASSERT_TRUE(block);
  EXPECT_EQ(block.get()[2], 'c');
}

TEST_F(PreOSLogBufferTest, AsksForTheSizeWithOneZeroByteAndReadsWithoutANewValue) {
  setLog(buffer("abc", 2, false));
  (void)collect();
  const auto writes = platform_.hostInformation().controlWrites();
  ASSERT_EQ(writes.size(), 1U);
  EXPECT_EQ(writes[0].name, kControl);
  EXPECT_EQ(writes[0].value, std::string(1, '\0'));
}

// --- Positions at and past the end of the ring ---

TEST_F(PreOSLogBufferTest, TakesABareHeaderForALogOfOneByte) {
  setLog(header(14, 0, false));
  EXPECT_EQ(collect(), std::string(1, '\0'));
}

TEST_F(PreOSLogBufferTest, GivesNothingOfABareHeaderThatHasWrapped) {
  setLog(header(14, 0, true));
  EXPECT_EQ(collect(), "");
}

TEST_F(PreOSLogBufferTest, GivesTheWholeRingAtItsLastPosition) {
  setLog(buffer("abcd", 3, false));
  EXPECT_EQ(collect(), "abcd");
  setLog(buffer("abcd", 3, true));
  EXPECT_EQ(collect(), "abcd");
}

TEST_F(PreOSLogBufferTest, GivesZerosForAPositionPastTheRing) {
  setLog(buffer("abcd", 4, false));
  EXPECT_EQ(collect(), std::string("abcd\0", 5));
  // The largest that is accepted: the size, header included.
  setLog(buffer("abcd", 18, false));
  EXPECT_EQ(collect(), "abcd" + std::string(15, '\0'));
}

TEST_F(PreOSLogBufferTest, GivesAWrappedRingOnceWhateverThePosition) {
  for (const std::uint32_t position : {3U, 4U, 5U, 17U, 18U}) {
    setLog(buffer("abcd", position, true));
    EXPECT_EQ(collect(), "abcd") << position;
  }
}

TEST_F(PreOSLogBufferTest, RefusesAPositionPastTheSize) {
  for (const std::uint32_t position : {19U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    platform_.systemLog().clear();
    setLog(buffer("abcd", position, false));
    EXPECT_EQ(failure(), EFAULT) << position;
    EXPECT_THAT(lines(), ElementsAre(error("The header offset does not fit within the sysctl "
                                           "buffer that was returned.")));
  }
}

// --- Headers that are none ---

TEST_F(PreOSLogBufferTest, RefusesAnotherMagic) {
  std::string value = buffer("abcd", 1, false);
  value.replace(0, 4, "LSOP");
  setLog(value);
  EXPECT_EQ(failure(), EFAULT);
  EXPECT_THAT(lines(), ElementsAre(error("Magic for preoslog buffer doesn't match, expected "
                                         "4C534F50, given 504F534C")));
}

TEST_F(PreOSLogBufferTest, PrintsAMagicWithAllItsDigits) {
  setLog(std::string(20, '\0'));
  EXPECT_EQ(failure(), EFAULT);
  EXPECT_THAT(lines(), ElementsAre(error("Magic for preoslog buffer doesn't match, expected "
                                         "4C534F50, given 00000000")));
}

TEST_F(PreOSLogBufferTest, RefusesARecordedSizeOtherThanTheReadOne) {
  for (const std::uint32_t size : {0U, 17U, 19U, 0x12000000U, 0xFFFFFFFFU}) {
    platform_.systemLog().clear();
    setLog(header(size, 1, false) + "abcd");
    EXPECT_EQ(failure(), EFAULT) << size;
    EXPECT_THAT(lines(), ElementsAre(error("Buffer size returned by sysctl doesn't match buffer "
                                           "size recorded in the header, preoslog buffer is "
                                           "corrupted")));
  }
}

TEST_F(PreOSLogBufferTest, ChecksTheMagicFirstThenTheSize) {
  setLog("XOSL" + littleEndian(99) + littleEndian(99) + std::string(2, '\0'));
  (void)failure();
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_TRUE(platform_.systemLog().contains("Magic"));
  platform_.systemLog().clear();
  setLog(header(99, 99, false));
  (void)failure();
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_TRUE(platform_.systemLog().contains("recorded in the header"));
}

TEST_F(PreOSLogBufferTest, RefusesLessThanAHeader) {
  for (std::size_t size = 0; size < 14; ++size) {
    platform_.systemLog().clear();
    setLog(header(static_cast<std::uint32_t>(size), 0, false).substr(0, size));
    EXPECT_EQ(failure(), ENOENT) << size;
    EXPECT_THAT(lines(), ElementsAre(error("preoslog buffer size is " + std::to_string(size) +
                                           ", which is less than the minimum required size "
                                           "(14).")));
  }
}

// --- Calls that fail ---

TEST_F(PreOSLogBufferTest, FailsOnAHostWithoutSuchALog) {
  EXPECT_EQ(failure(), ENOENT);
  EXPECT_THAT(lines(), ElementsAre(error("Couldn't obtain preoslog buffer size, result No such "
                                         "file or directory")));
}

TEST_F(PreOSLogBufferTest, FailsWithTheErrorOfTheSizeQuery) {
  platform_.hostInformation().failControl(kControl, EPERM);
  EXPECT_EQ(failure(), EPERM);
  EXPECT_THAT(lines(), ElementsAre(error("Couldn't obtain preoslog buffer size, result Operation "
                                         "not permitted")));
}

// The size query does not try again, whatever its error.
TEST_F(PreOSLogBufferTest, FailsWhenTheSizeQueryLacksMemory) {
  platform_.hostInformation().failControl(kControl, ENOMEM);
  EXPECT_EQ(failure(), ENOMEM);
  EXPECT_EQ(lines().size(), 1U);
}

TEST_F(PreOSLogBufferTest, FailsWithTheErrorOfTheRead) {
  setLog(buffer("abcd", 1, false));
  beforeCall(2, [this] { platform_.hostInformation().failControl(kControl, EIO); });
  EXPECT_EQ(failure(), EIO);
  EXPECT_EQ(calls_, 2);
  EXPECT_THAT(lines(), ElementsAre(error("Couldn't obtain preoslog buffer, sysctl failed with "
                                         "result Input/output error")));
}

TEST_F(PreOSLogBufferTest, LogsToTheConsoleToo) {
  (void)failure();
  EXPECT_EQ(platform_.systemConsole().writes().size(), 1U);
}

// --- A log that changes while it is read ---

TEST_F(PreOSLogBufferTest, StartsOverWhenTheLogOutgrowsTheMemoryMadeForIt) {
  setLog(buffer("abcd", 1, false));
  beforeCall(2, [this] { setLog(buffer("much longer than before", 22, false)); });
  errno = 0;
  EXPECT_EQ(collect(), "much longer than before");
  EXPECT_EQ(errno, ENOMEM);  // that of the attempt that failed
  EXPECT_EQ(calls_, 4);
  EXPECT_EQ(platform_.hostInformation().controlWrites().size(), 2U);
  EXPECT_THAT(lines(), ElementsAre(error("Couldn't obtain preoslog buffer, sysctl failed with "
                                         "result Cannot allocate memory")));
}

TEST_F(PreOSLogBufferTest, StartsOverAsOftenAsItTakes) {
  std::string ring = "x";
  setLog(buffer(ring, 0, false));
  platform_.hostInformation().onControl([&](const std::string&) {
    ++calls_;
    if (calls_ % 2 == 1 || calls_ > 200) return;
    ring += 'y';
    setLog(buffer(ring, static_cast<std::uint32_t>(ring.size() - 1), false));
  });
  EXPECT_EQ(collect(), ring);
  EXPECT_EQ(ring.size(), 101U);
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(PreOSLogBufferTest, FailsWhenTheLogVanishesBetweenTwoAttempts) {
  setLog(buffer("abcd", 1, false));
  platform_.hostInformation().onControl([this](const std::string&) {
    ++calls_;
    if (calls_ == 2) setLog(buffer("longer", 1, false));
    if (calls_ == 3) platform_.hostInformation().failControl(kControl, ENOENT);
  });
  EXPECT_EQ(failure(), ENOENT);
  EXPECT_EQ(lines().size(), 2U);
}

TEST_F(PreOSLogBufferTest, KeepsTheReasonOfABadHeaderAfterAnAttemptThatFailed) {
  setLog(buffer("abcd", 1, false));
  beforeCall(2, [this] { setLog(std::string(64, 'x')); });
  EXPECT_EQ(failure(), EFAULT);
}

TEST_F(PreOSLogBufferTest, TakesALogThatGotShorter) {
  setLog(buffer(std::string(100, 'o'), 50, false));
  beforeCall(2, [this] { setLog(buffer("short", 9, false)); });
  // No byte of what memory held before.
  EXPECT_EQ(collect(), std::string("short\0\0\0\0\0", 10));
}

TEST_F(PreOSLogBufferTest, RefusesALogThatShrankBelowItsHeader) {
  setLog(buffer("abcd", 1, false));
  beforeCall(2, [this] { setLog(header(13, 0, false).substr(0, 13)); });
  EXPECT_EQ(failure(), EFAULT);
  EXPECT_THAT(lines(), ElementsAre(error("The header data does not fit within the sysctl buffer "
                                         "that was returned.")));
}

TEST_F(PreOSLogBufferTest, SeesZerosWhereNothingWasRead) {
  setLog(buffer("abcd", 1, false));
  beforeCall(2, [this] { setLog("PO"); });
  EXPECT_EQ(failure(), EFAULT);
  EXPECT_THAT(lines(), ElementsAre(error("Magic for preoslog buffer doesn't match, expected "
                                         "4C534F50, given 00004F50")));
}

// --- No memory ---

class EndlessLog : public FakeHostInformation {
 public:
  int systemControl(const char*, void* out, std::size_t* outLength, const void*,
                    std::size_t) override {
    EXPECT_EQ(out, nullptr) << "read without memory";
    *outLength = std::numeric_limits<std::size_t>::max();
    return 0;
  }
};

TEST_F(PreOSLogBufferTest, FailsWithoutMemoryForTheLog) {
  Platform::current().hostInformation = std::make_unique<EndlessLog>();
  EXPECT_EQ(failure(), ENOMEM);
  EXPECT_THAT(lines(), ElementsAre(error("Failed to allocate memory for preoslog buffer")));
}

}  // namespace
}  // namespace quillsift
