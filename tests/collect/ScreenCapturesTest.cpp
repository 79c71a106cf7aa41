#include <gmock/gmock.h>

#include <cerrno>
#include <memory>
#include <vector>

#include "collect/CollectionPlan.h"
#include "collect/ScreenCaptures.h"
#include "tests/collect/PlanFixture.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ScreenCapturesTest : public PlanFixture {
 protected:
  void collect() {
    session_ = session();
    queueScreenCaptures(session_, row_);
    platform.workQueues().drain();
  }

  const PlanRow row_{Producer{queueScreenCaptures}, "screenshots/", Sensitive::no,
                     QOSClass::utility};
  CollectionSession session_;
};

TEST_F(ScreenCapturesTest, QueuesOneJobForEachDisplay) {
  platform.displays().displays = {{.identifier = 11}, {.identifier = 12}};
  collect();
  EXPECT_THAT(relativePaths(), ElementsAre("screenshots/0.png", "screenshots/1.png"));
  const Job job = host->jobs().at(0);
  EXPECT_EQ(job.kind, Kind::work);
  EXPECT_FALSE(job.sensitive);
  EXPECT_EQ(job.qos, QOSClass::utility);
  EXPECT_EQ(job.group, session_.group);
  EXPECT_EQ(job.uuid, sessionUUID.text());
  EXPECT_THAT(platform.displays().roomsAsked, ElementsAre(8U));
  EXPECT_THAT(platform.systemLog().lines(), IsEmpty());
}

TEST_F(ScreenCapturesTest, SkipsADisplayThatMirrorsAnother) {
  platform.displays().displays = {{.identifier = 11}, {.identifier = 12, .mirrors = true}};
  collect();
  EXPECT_THAT(relativePaths(), ElementsAre("screenshots/0.png"));
}

TEST_F(ScreenCapturesTest, CountsMirrorsWhenItNamesThePictures) {
  platform.displays().displays = {{.identifier = 11, .mirrors = true}, {.identifier = 12}};
  collect();
  EXPECT_THAT(relativePaths(), ElementsAre("screenshots/1.png"));
  const WorkOutcome outcome(host->jobs().at(0).work);
  EXPECT_THAT(platform.displays().captured, ElementsAre(12U));
}

TEST_F(ScreenCapturesTest, QueuesAndSaysNothingWithoutADisplay) {
  collect();
  EXPECT_THAT(host->jobs(), IsEmpty());
  EXPECT_THAT(platform.systemLog().lines(), IsEmpty());
}

TEST_F(ScreenCapturesTest, NamesTheCodeWhenDisplaysCannotBeListed) {
  platform.displays().displays = {{.identifier = 11}};
  platform.displays().error = ENOSYS;
  collect();
  EXPECT_THAT(host->jobs(), IsEmpty());
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(warningLine("Failed to invoke ScreenListActive to get list of active "
                                      "displays for screenshoting. Error:38")));
}

// Lists no display, and not before the test lets it.
class SlowDisplays : public Displays {
 public:
  explicit SlowDisplays(std::shared_ptr<WorkGroup> gate) : gate_(std::move(gate)) {}

  int activeDisplays(std::size_t, std::vector<std::uint32_t>*) override {
    EXPECT_EQ(currentQOS(), QOSClass::userInitiated);
    gate_->wait();
    return 0;
  }
  bool mirrorsAnother(std::uint32_t) override { return false; }
  std::unique_ptr<ScreenImage> capture(std::uint32_t) override { return nullptr; }

 private:
  const std::shared_ptr<WorkGroup> gate_;
};

TEST_F(ScreenCapturesTest, ListsTheDisplaysElsewhereAsAMemberOfTheSessionGroup) {
  const auto gate = platform.workQueues().makeGroup();
  gate->enter();
  Platform::current().displays = std::make_unique<SlowDisplays>(gate);
  session_ = session();
  queueScreenCaptures(session_, row_);
  platform.workQueues().settle();
  EXPECT_FALSE(session_.group->waitFor(std::chrono::nanoseconds(0)));
  gate->leave();
  platform.workQueues().drain();
  EXPECT_TRUE(session_.group->waitFor(std::chrono::nanoseconds(0)));
}

TEST_F(ScreenCapturesTest, CapturesAPicture) {
  platform.displays().displays = {{.identifier = 11, .png = "the picture"}};
  collect();
  const WorkOutcome outcome(host->jobs().at(0).work);
  EXPECT_TRUE(outcome.succeeded);
  EXPECT_EQ(outcome.text(), "the picture");
}

TEST_F(ScreenCapturesTest, NamesADisplayThatCannotBeCaptured) {
  platform.displays().displays = {{.identifier = 11, .capturable = false}};
  collect();
  const WorkOutcome outcome(host->jobs().at(0).work);
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_FALSE(outcome.error);
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(warningLine("Failed to construct a ScreenGrabImage with displayID 11")));
}

TEST_F(ScreenCapturesTest, NamesADisplayWhosePictureCannotBeEncoded) {
  platform.displays().displays = {{.identifier = 0xFFFFFFFF, .png = std::nullopt}};
  collect();
  const WorkOutcome outcome(host->jobs().at(0).work);
  EXPECT_FALSE(outcome.succeeded);
  EXPECT_EQ(outcome.entry, nullptr);
  EXPECT_FALSE(outcome.error);
  EXPECT_THAT(platform.systemLog().lines(),
              ElementsAre(warningLine("Failed to ImageSinkFinalize with displayID -1")));
}

TEST_F(ScreenCapturesTest, CapturesForNobodyWhoWantsThePicture) {
  platform.displays().displays = {{.identifier = 11}};
  collect();
  EXPECT_TRUE(host->jobs().at(0).work(nullptr, nullptr));
}

TEST_F(ScreenCapturesTest, EndsQuietlyOnceTheHostIsGone) {
  platform.displays().displays = {{.identifier = 11}};
  CollectionSession orphan = session();
  orphan.host.reset();
  queueScreenCaptures(orphan, row_);
  platform.workQueues().drain();
  EXPECT_THAT(host->jobs(), IsEmpty());
}

}  // namespace
}  // namespace quillsift
