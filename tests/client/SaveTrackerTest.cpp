#include <gtest/gtest.h>

#include "client/SaveTracker.h"

namespace quillsift {
namespace {

using State = SaveTracker::State;

TEST(SaveTrackerTest, FollowsAnArchiveThroughItsTwoNames) {
  SaveTracker tracker("/x/a.tgz");
  EXPECT_EQ(tracker.state(), State::requested);
  EXPECT_TRUE(tracker.take({0, SaveState::started, "/x/a.tgz.inprogress"}));
  EXPECT_EQ(tracker.state(), State::underWay);
  EXPECT_TRUE(tracker.take({0.5, SaveState::progress, "/x/a.tgz.inprogress"}));
  EXPECT_EQ(tracker.latest()->progress, 0.5);
  EXPECT_TRUE(tracker.take({1, SaveState::finished, "/x/a.tgz"}));
  EXPECT_EQ(tracker.state(), State::finished);
}

TEST(SaveTrackerTest, FollowsADirectory) {
  SaveTracker tracker("/x/dir");
  EXPECT_TRUE(tracker.take({0, SaveState::started, "/x/dir"}));
  EXPECT_TRUE(tracker.take({-1, SaveState::failed, "/x/dir"}));
  EXPECT_EQ(tracker.state(), State::failed);
}

TEST(SaveTrackerTest, LeavesOtherSavesAlone) {
  SaveTracker tracker("/x/a.tgz");
  EXPECT_FALSE(tracker.take({0, SaveState::started, "/y/a.tgz.inprogress"}));
  EXPECT_FALSE(tracker.take({0, SaveState::started, "/x/a.tgz2"}));
  EXPECT_FALSE(tracker.take({-1, SaveState::failed, "/y/a.tgz.inprogress"}));
  EXPECT_EQ(tracker.state(), State::requested);
  EXPECT_FALSE(tracker.latest());
}

TEST(SaveTrackerTest, TakesAnyFailureForOursOnceOursIsUnderWay) {
  SaveTracker tracker("/x/dir");
  tracker.take({0, SaveState::started, "/x/dir"});
  EXPECT_TRUE(tracker.take({-1, SaveState::failed, "/x/dir/Logs/install.log"}));
  EXPECT_EQ(tracker.state(), State::failed);
}

TEST(SaveTrackerTest, IsOverWhenItIsOver) {
  SaveTracker tracker("/x/a.tgz");
  tracker.take({1, SaveState::finished, "/x/a.tgz"});
  EXPECT_FALSE(tracker.take({0, SaveState::started, "/x/a.tgz.inprogress"}));
  EXPECT_EQ(tracker.state(), State::finished);
}

TEST(OtherSavesTest, KnowsWhatIsUnderWayAndWhereTheLastOneWent) {
  OtherSaves others;
  others.take({0, SaveState::started, "/y/b.tgz.inprogress"});
  EXPECT_EQ(others.underWay(), "/y/b.tgz.inprogress");
  others.take({-1, SaveState::failed, "/y/b.tgz.inprogress"});
  EXPECT_FALSE(others.underWay());
  EXPECT_FALSE(others.finished());
  others.take({0.5, SaveState::progress, "/y/c.tgz.inprogress"});
  others.take({1, SaveState::finished, "/y/c.tgz"});
  EXPECT_FALSE(others.underWay());
  EXPECT_EQ(others.finished(), "/y/c.tgz");
}

}  // namespace
}  // namespace quillsift
