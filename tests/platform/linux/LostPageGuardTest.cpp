#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/linux/GuardedMapping.h"
#include "platform/linux/LostPageGuard.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

const auto kPage = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));

class LostPageGuardTest : public testing::Test {
 protected:
  // A file of so many bytes that are not zero.
  std::string makeFile(std::size_t length, const std::string& name = "file") const {
    return scratch_.write(name, std::string(length, 'x'));
  }

  static QSData mapped(const std::string& path, std::size_t length) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const auto data = GuardedMapping::ofFile(file.get(), length);
    EXPECT_TRUE(data.has_value()) << std::generic_category().message(errno);
    return data.value_or(QSData());
  }

  // A mapping of the file that nobody guards; its page is lost.
  volatile const char* lostAndUnguarded() const {
    const std::string path = makeFile(kPage, "unguarded");
    const FileDescriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    void* const address = ::mmap(nullptr, kPage, PROT_READ, MAP_PRIVATE, file.get(), 0);
    EXPECT_NE(address, MAP_FAILED);
    EXPECT_EQ(::ftruncate(file.get(), 0), 0);
    return static_cast<const char*>(address);
  }

  void installGuard() const { (void)mapped(makeFile(1, "first"), 1); }

  const ScratchTree scratch_;
};

std::string kept(std::size_t length, std::size_t zeros) {
  return std::string(length, 'x') + std::string(zeros, '\0');
}

TEST_F(LostPageGuardTest, ReadsWhatIsLeftOfACutFileAndZerosBehind) {
  const std::size_t length = 5 * kPage + 100;
  for (const std::size_t left :
       {std::size_t{0}, std::size_t{1}, kPage, kPage + 7, 5 * kPage, 5 * kPage + 99, length}) {
    const std::string path = makeFile(length);
    const QSData data = mapped(path, length);
    ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(left)), 0);
    EXPECT_EQ(data.text(), kept(left, length - left)) << left;
  }
}

TEST_F(LostPageGuardTest, LosesPagesThatWereReadBefore) {
  const std::string path = makeFile(4 * kPage);
  const QSData data = mapped(path, 4 * kPage);
  EXPECT_EQ(data.text(), kept(4 * kPage, 0));
  ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(kPage)), 0);
  EXPECT_EQ(data.text(), kept(kPage, 3 * kPage));
}

TEST_F(LostPageGuardTest, ReplacesNoPageThatIsStillThere) {
  const std::string path = makeFile(8 * kPage);
  const QSData data = mapped(path, 8 * kPage);
  ASSERT_EQ(::truncate(path.c_str(), 0), 0);
  EXPECT_EQ(data.text()[3 * kPage], '\0');
  ASSERT_EQ(::truncate(path.c_str(), 0), 0);
  std::ofstream(path) << std::string(8 * kPage, 'y');
  EXPECT_EQ(data.text(),
            std::string(3 * kPage, 'y') + std::string(kPage, '\0') + std::string(4 * kPage, 'y'));
}

TEST_F(LostPageGuardTest, KeepsTheLengthWhenShorterContentTakesThePlace) {
  const std::string path = makeFile(3 * kPage);
  const QSData data = mapped(path, 3 * kPage);
  std::ofstream(path, std::ios::trunc) << "short";
  EXPECT_EQ(data.text(), "short" + std::string(3 * kPage - 5, '\0'));
}

TEST_F(LostPageGuardTest, KeepsTheContentOfAFileThatIsReplacedOrRemoved) {
  const std::string path = makeFile(2 * kPage);
  const QSData replaced = mapped(path, 2 * kPage);
  std::filesystem::rename(scratch_.write("new", "other"), path);
  EXPECT_EQ(replaced.text(), kept(2 * kPage, 0));
  const QSData removed = mapped(path, 5);
  std::filesystem::remove(path);
  EXPECT_EQ(removed.text(), "other");
}

TEST_F(LostPageGuardTest, ReadsAHoleThatIsPunchedAsZeros) {
  const std::string path = makeFile(3 * kPage);
  const QSData data = mapped(path, 3 * kPage);
  const FileDescriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  if (::fallocate(file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(kPage),
                  static_cast<off_t>(kPage)) != 0) {
    GTEST_SKIP() << "no holes here";
  }
  EXPECT_EQ(data.text(),
            std::string(kPage, 'x') + std::string(kPage, '\0') + std::string(kPage, 'x'));
}

TEST_F(LostPageGuardTest, KeepsErrno) {
  const std::string path = makeFile(kPage);
  const QSData data = mapped(path, kPage);
  ASSERT_EQ(::truncate(path.c_str(), 0), 0);
  errno = ESRCH;
  const char lost = data.text()[10];
  EXPECT_EQ(errno, ESRCH);
  EXPECT_EQ(lost, '\0');
}

TEST_F(LostPageGuardTest, FailsASystemCallOnALostPageUntilSomebodyHasReadIt) {
  const std::string path = makeFile(kPage);
  const QSData data = mapped(path, kPage);
  ASSERT_EQ(::truncate(path.c_str(), 0), 0);
  const FileDescriptor out(
      ::open(scratch_.at("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
  EXPECT_EQ(::write(out.get(), data.bytes().data(), kPage), -1);
  EXPECT_EQ(errno, EFAULT);
  EXPECT_EQ(data.text()[0], '\0');
  EXPECT_EQ(::write(out.get(), data.bytes().data(), kPage), static_cast<ssize_t>(kPage));
}

TEST_F(LostPageGuardTest, GuardsInAForkedChildToo) {
  const std::string path = makeFile(2 * kPage);
  const QSData data = mapped(path, 2 * kPage);
  ASSERT_EQ(::truncate(path.c_str(), 0), 0);
  const pid_t child = ::fork();
  if (child == 0) ::_exit(data.text()[kPage] == '\0' ? 0 : 1);
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(data.text(), kept(0, 2 * kPage));
}

TEST_F(LostPageGuardTest, GuardsAsLongAsACopyOfTheDataIsLeft) {
  const std::string path = makeFile(2 * kPage);
  QSData copy;
  {
    const QSData data = mapped(path, 2 * kPage);
    copy = data;
  }
  ASSERT_EQ(::truncate(path.c_str(), 0), 0);
  EXPECT_EQ(copy.text(), kept(0, 2 * kPage));
}

TEST_F(LostPageGuardTest, UnmapsWhatNobodyHoldsAnyMore) {
  const auto mappings = [&] {
    std::ifstream maps("/proc/self/maps");
    int found = 0;
    for (std::string line; std::getline(maps, line);) {
      found += line.find(scratch_.directory()) != std::string::npos ? 1 : 0;
    }
    return found;
  };
  const std::string path = makeFile(3 * kPage);
  {
    const QSData data = mapped(path, 3 * kPage);
    EXPECT_EQ(mappings(), 1);
    ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(kPage)), 0);
    EXPECT_EQ(data.text()[2 * kPage], '\0');
  }
  EXPECT_EQ(mappings(), 0);
}

TEST_F(LostPageGuardTest, GuardsManyThreadsWhileFilesAreCut) {
  constexpr int kThreads = 8;
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      const std::string path = scratch_.at("file" + std::to_string(thread));
      for (int round = 0; round < 30; ++round) {
        std::ofstream(path) << std::string(16 * kPage, 'x');
        const QSData data = mapped(path, 16 * kPage);
        if (::truncate(path.c_str(), static_cast<off_t>(5 * kPage)) != 0) ++wrong;
        if (data.text() != kept(5 * kPage, 11 * kPage)) ++wrong;
      }
    });
  }
  for (auto& thread : threads)
    thread.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(LostPageGuardTest, GuardsAFileThatIsCutWhileSeveralThreadsReadIt) {
  constexpr std::size_t kPages = 256;
  const std::string path = makeFile(kPages * kPage);
  const QSData data = mapped(path, kPages * kPage);
  std::atomic<bool> cut = false;
  std::atomic<int> wrong = 0;
  std::vector<std::thread> readers;
  for (int reader = 0; reader < 4; ++reader) {
    readers.emplace_back([&] {
      // Once more after the cut has been seen.
      for (bool last = false; !last;) {
        last = cut;
        for (const char byte : data.text())
          if (byte != 'x' && byte != '\0') ++wrong;
      }
    });
  }
  ASSERT_EQ(::truncate(path.c_str(), 0), 0);
  cut = true;
  for (auto& reader : readers)
    reader.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(data.text(), kept(0, kPages * kPage));
}

// --- Many mappings

TEST_F(LostPageGuardTest, TakesAQuarterOfTheMappingsThatTheKernelAllows) {
  std::size_t limit = 0;
  std::ifstream("/proc/sys/vm/max_map_count") >> limit;
  EXPECT_EQ(LostPageGuard::room(), std::min<std::size_t>(limit / 4, 65536));
}

TEST_F(LostPageGuardTest, GuardsAsManyFilesAsThereIsRoomForAndRefusesMore) {
  constexpr std::size_t kLarge = 64 * 1024;
  const std::string path = makeFile(kLarge);
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::vector<QSData> small, large;
  while (const auto data = GuardedMapping::ofFile(file.get(), kPage))
    small.push_back(*data);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(small.size(), LostPageGuard::room() / 2);
  // Small files have left room for large ones.
  while (const auto data = GuardedMapping::ofFile(file.get(), kLarge))
    large.push_back(*data);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(small.size() + large.size(), LostPageGuard::room());

  ASSERT_EQ(::truncate(path.c_str(), 0), 0);
  for (const auto* mappings : {&small, &large}) {
    for (const QSData& data : *mappings)
      ASSERT_EQ(data.text()[data.length() - 1], '\0');
  }
  small.clear();
  ASSERT_EQ(::truncate(path.c_str(), kLarge), 0);
  EXPECT_TRUE(GuardedMapping::ofFile(file.get(), kLarge));
}

#ifndef QUILLSIFT_SANITIZED  // whose own memory needs mappings too
TEST_F(LostPageGuardTest, ReplacesAllOfAFileWhereTheProcessMayHaveNoMoreMappings) {
  const std::string path = makeFile(9 * kPage);
  const QSData data = mapped(path, 9 * kPage);
  ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(4 * kPage)), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    // Pages of two kinds, of which the kernel cannot make one mapping.
    void* last = MAP_FAILED;
    for (int protection = PROT_READ;; protection ^= PROT_WRITE) {
      void* const page = ::mmap(nullptr, kPage, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (page == MAP_FAILED) break;
      last = page;
    }
    ::munmap(last, kPage);
    const bool lostReadsAsZero = data.text()[6 * kPage] == '\0';
    const bool wholeReplaced = data.text()[0] == '\0';
    ::_exit(lostReadsAsZero && wholeReplaced ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}
#endif

// --- What is not forgiven. The guard is installed once for a process, so each test has its own.

class LostPageGuardDeathTest : public LostPageGuardTest {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

bool endedByBusError(int status) {
#ifdef QUILLSIFT_SANITIZED
  return WIFEXITED(status) && WEXITSTATUS(status) != 0;  // reported
#else
  return WIFSIGNALED(status) && WTERMSIG(status) == SIGBUS;
#endif
}

bool exitedWithSeven(int status) {
  return WIFEXITED(status) && WEXITSTATUS(status) == 7;
}

void exitWithSeven(int) {
  ::_exit(7);
}

void exitWithSevenAt(int, siginfo_t* info, void* context) {
  ::_exit(info->si_code == BUS_ADRERR && info->si_addr != nullptr && context != nullptr ? 7 : 1);
}

TEST_F(LostPageGuardDeathTest, EndsTheProcessForALostPageThatIsNotGuarded) {
  EXPECT_EXIT(
      {
        installGuard();
        (void)*lostAndUnguarded();
      },
      endedByBusError, "");
}

TEST_F(LostPageGuardDeathTest, EndsTheProcessForARangeThatIsNoLongerGuarded) {
  EXPECT_EXIT(
      {
        const std::string path = makeFile(kPage);
        const FileDescriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        void* const address = ::mmap(nullptr, kPage, PROT_READ, MAP_PRIVATE, file.get(), 0);
        const auto ticket = LostPageGuard::add(address, kPage, 10);
        if (::ftruncate(file.get(), 0) != 0) ::_exit(1);
        LostPageGuard::remove(ticket.value());
        (void)*static_cast<volatile const char*>(address);
      },
      endedByBusError, "");
}

TEST_F(LostPageGuardDeathTest, EndsTheProcessBesideAGuardedRange) {
  EXPECT_EXIT(
      {
        const std::string path = makeFile(3 * kPage);
        const FileDescriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        void* const address = ::mmap(nullptr, 3 * kPage, PROT_READ, MAP_PRIVATE, file.get(), 0);
        auto* const bytes = static_cast<volatile const char*>(address);
        (void)LostPageGuard::add(static_cast<char*>(address) + kPage, kPage, 10);
        if (::ftruncate(file.get(), 0) != 0 || bytes[2 * kPage - 1] != 0) ::_exit(1);
        (void)bytes[2 * kPage];
      },
      endedByBusError, "");
}

TEST_F(LostPageGuardDeathTest, EndsTheProcessForASignalThatIsSent) {
  EXPECT_EXIT(
      {
        installGuard();
        ::kill(::getpid(), SIGBUS);
        ::_exit(0);
      },
      endedByBusError, "");
}

TEST_F(LostPageGuardDeathTest, PassesOtherFaultsOnToAnEarlierHandler) {
  EXPECT_EXIT(
      {
        ::signal(SIGBUS, exitWithSeven);
        installGuard();
        (void)*lostAndUnguarded();
      },
      exitedWithSeven, "");
}

TEST_F(LostPageGuardDeathTest, PassesEverythingOnToAnEarlierHandlerThatAsksForIt) {
  EXPECT_EXIT(
      {
        struct sigaction action {};
        action.sa_sigaction = exitWithSevenAt;
        action.sa_flags = SA_SIGINFO;
        ::sigaction(SIGBUS, &action, nullptr);
        installGuard();
        (void)*lostAndUnguarded();
      },
      exitedWithSeven, "");
}

TEST_F(LostPageGuardDeathTest, IgnoresASignalThatIsSentWhereItWasIgnoredBefore) {
  EXPECT_EXIT(
      {
        ::signal(SIGBUS, SIG_IGN);
        installGuard();
        ::kill(::getpid(), SIGBUS);
        ::_exit(7);
      },
      exitedWithSeven, "");
}

#ifndef QUILLSIFT_SANITIZED  // which would report the fault over and over
TEST_F(LostPageGuardDeathTest, EndsTheProcessForAFaultEvenWhereTheSignalWasIgnored) {
  EXPECT_EXIT(
      {
        ::signal(SIGBUS, SIG_IGN);
        installGuard();
        (void)*lostAndUnguarded();
      },
      endedByBusError, "");
}
#endif

}  // namespace
}  // namespace quillsift
