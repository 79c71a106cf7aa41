#include <gmock/gmock.h>

#include <cerrno>
#include <cstddef>
#include <string>

#include "daemon/KernelEvents.h"
#include "tests/daemon/DaemonFixture.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kFrontEnd =
    "/System/Installation/CDIS/Quillsift GUI.app/Contents/LuminaOS/Quillsift GUI";
constexpr FlashParameters kRefused = {0.5, 0.5, 0.5, 0.5, 1.0, 0.0, 0.0};

class KernelEventsTest : public DaemonFixture {
 protected:
  KernelEventsTest() : port_(KernelEventPort::open(daemon_, &code_)) {}

  std::int32_t send(std::int32_t eventCode, const AuditToken& sender = {}) {
    const KernelReply reply = platform_.kernelMessages().deliver(
        {makeKernelRequest(31338, eventCode), makeKernelTrailer(sender)});
    return static_cast<std::int32_t>(
        kernelMessageField(reply.data(), reply.size(), kernelmessage::kReturnCode));
  }
  std::size_t frontEndStarts() const {
    std::size_t starts = 0;
    for (const LaunchRequest& request : launcher().requests()) {
      if (request.executablePath == kFrontEnd) ++starts;
    }
    return starts;
  }
  const FakeProcessLauncher& launcher() const {
    return const_cast<KernelEventsTest*>(this)->platform_.processLauncher();
  }
  auto flashes() { return platform_.visualFlash().flashes(); }

  int code_ = -1;
  const std::unique_ptr<KernelEventPort> port_;
};

TEST_F(KernelEventsTest, OpensThePortByItsStepsInOrder) {
  EXPECT_EQ(code_, 0);
  EXPECT_THAT(platform_.kernelMessages().calls,
              ElementsAre("checkIn io.vantor.quillsiftd.kernel", "setQueueLimit 5",
                          "resume io.vantor.quillsiftd.migqueue"));
  EXPECT_EQ(platform_.kernelMessages().queue->qos(), QOSClass::standard);
}

TEST_F(KernelEventsTest, AnEventOfTheKernelStartsASession) {
  EXPECT_EQ(send(55), 0);
  EXPECT_THAT(flashes(), ElementsAre(std::nullopt));
  platform_.workQueues().drain();
  EXPECT_TRUE(daemon_->lastDiagnoseFinishedDate());
  EXPECT_EQ(frontEndStarts(), 1U);
}

TEST_F(KernelEventsTest, AnEventDuringASessionIsRefusedForAllToSee) {
  startHangingSession();
  EXPECT_EQ(send(55), 0);
  EXPECT_THAT(flashes(), ElementsAre(kRefused));
  EXPECT_EQ(frontEndStarts(), 1U);
  release();
}

TEST_F(KernelEventsTest, AnEventDuringASaveIsRefused) {
  runSession();
  SaveLock& save = daemon_->quillsiftSaveLock();
  ASSERT_TRUE(save.try_lock());
  EXPECT_EQ(send(55), 0);
  save.unlock();
  EXPECT_THAT(flashes(), ElementsAre(kRefused));
  EXPECT_FALSE(daemon_->currentlyTakingQuillsift());
  platform_.workQueues().drain();
  EXPECT_EQ(frontEndStarts(), 1U);
}

TEST_F(KernelEventsTest, OtherEventsDoNothing) {
  for (const std::int32_t event : {0, 54, 56, -55})
    EXPECT_EQ(send(event), 0) << event;
  EXPECT_THAT(flashes(), IsEmpty());
  EXPECT_THAT(launcher().requests(), IsEmpty());
}

TEST_F(KernelEventsTest, NobodyElseIsTheKernel) {
  for (std::size_t word = 0; word < AuditToken().size(); ++word) {
    AuditToken sender{};
    sender[word] = 0x01000000;
    EXPECT_EQ(send(55, sender), 5) << word;
    EXPECT_EQ(send(54, sender), 5) << word;
  }
  EXPECT_THAT(flashes(), IsEmpty());
  EXPECT_THAT(launcher().requests(), IsEmpty());
  EXPECT_FALSE(daemon_->currentlyTakingQuillsift());
  EXPECT_THAT(platform_.systemLog().lines(), IsEmpty());
}

TEST_F(KernelEventsTest, AFrontEndThatCannotBeOpenedLeavesTheAnswerAsItIs) {
  platform_.processLauncher().script(kFrontEnd, {.launchError = QSError::posix(ENOENT)});
  EXPECT_EQ(send(55), 0);
  EXPECT_TRUE(platform_.systemLog().contains("Failed to open:\"" + std::string(kFrontEnd)));
  platform_.workQueues().drain();
}

class KernelEventPortTest : public DaemonFixture {};

TEST_F(KernelEventPortTest, GivesTheFirstFailureOfAPortThatCannotBeHad) {
  FakeKernelMessages& kernel = platform_.kernelMessages();
  int code = 0;
  kernel.checkInCode = ENOSYS;
  EXPECT_EQ(KernelEventPort::open(daemon_, &code), nullptr);
  EXPECT_EQ(code, ENOSYS);
  EXPECT_EQ(kernel.calls.size(), 1U);

  kernel.checkInCode = 0;
  kernel.queueLimitCode = EINVAL;
  kernel.calls.clear();
  EXPECT_EQ(KernelEventPort::open(daemon_, &code), nullptr);
  EXPECT_EQ(code, EINVAL);
  EXPECT_EQ(kernel.calls.back(), "drop");

  kernel.queueLimitCode = 0;
  kernel.resumeCode = EMFILE;
  kernel.calls.clear();
  EXPECT_EQ(KernelEventPort::open(daemon_, &code), nullptr);
  EXPECT_EQ(code, EMFILE);
  EXPECT_EQ(kernel.calls.back(), "drop");
  EXPECT_THAT(platform_.systemLog().lines(), IsEmpty());
}

}  // namespace
}  // namespace quillsift
