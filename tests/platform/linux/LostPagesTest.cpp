#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "platform/linux/LostPages.h"

namespace quillsift {
namespace {

constexpr std::size_t kPage = 4096;

// Reads a page of a mapped file of two pages, shortened to one meanwhile.
char byteAfterShortening(std::size_t offset) {
  const int file = ::memfd_create("shortened", MFD_CLOEXEC);
  const char text[2 * kPage] = {'a'};
  if (::write(file, text, sizeof text) != sizeof text) std::abort();
  void* const memory = ::mmap(nullptr, sizeof text, PROT_READ, MAP_SHARED, file, 0);
  if (memory == MAP_FAILED || ::ftruncate(file, kPage) != 0) std::abort();
  return static_cast<const volatile char*>(memory)[offset];
}

// Each in a process of its own: the signal's handler is there for good.
TEST(LostPagesTest, ReadAsZeros) {
  EXPECT_EXIT(
      {
        fillLostPagesWithZeros();
        const bool before = pagesWereLost();
        const char byte = byteAfterShortening(kPage + 17);
        std::_Exit(!before && byte == 0 && pagesWereLost() ? 7 : 1);
      },
      testing::ExitedWithCode(7), "");
}

TEST(LostPagesTest, LeaveTheOtherPagesAlone) {
  EXPECT_EXIT(
      {
        fillLostPagesWithZeros();
        const char byte = byteAfterShortening(0);
        std::_Exit(byte == 'a' && !pagesWereLost() ? 7 : 1);
      },
      testing::ExitedWithCode(7), "");
}

TEST(LostPagesTest, AreNotTheOnlyReasonForTheSignal) {
  EXPECT_EXIT(
      {
        fillLostPagesWithZeros();
        (void)::raise(SIGBUS);
        (void)::raise(SIGBUS);
      },
      testing::KilledBySignal(SIGBUS), "");
}

}  // namespace
}  // namespace quillsift
