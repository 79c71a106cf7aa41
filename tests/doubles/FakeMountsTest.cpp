#include <gtest/gtest.h>

#include <cerrno>
#include <span>

#include "tests/doubles/FakeMounts.h"

namespace quillsift {
namespace {

class FakeMountsTest : public testing::Test {
 protected:
  bool mount(const char* device, const char* directory) {
    return mounts_.mount("vellum", directory, MountFlags::synchronous,
                         std::as_bytes(std::span(&device, 1)));
  }

  FakeMounts mounts_;
};

TEST_F(FakeMountsTest, WhatIsMountedIsInTheTableUntilItIsUnmounted) {
  mounts_.add("/dev/root", "/");
  ASSERT_TRUE(mount("/dev/a", "/mnt"));
  ASSERT_EQ(mounts_.table().size(), 2U);
  EXPECT_EQ(mounts_.table()[1].mountedFrom, "/dev/a");
  EXPECT_EQ(mounts_.table()[1].mountedOn, "/mnt");
  EXPECT_EQ(mounts_.calls()[0].type, "vellum");
  EXPECT_EQ(mounts_.calls()[0].flags, MountFlags::synchronous);
  EXPECT_TRUE(mounts_.unmount("/mnt", false));
  EXPECT_EQ(mounts_.table().size(), 1U);
  EXPECT_FALSE(mounts_.unmount("/mnt", true));
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(FakeMountsTest, FailsOnDemandAndChangesNothing) {
  mounts_.add("/dev/a", "/mnt");
  mounts_.fail("unmount", "/mnt", EBUSY);
  mounts_.fail("mount", "/dev/bad", EIO);
  mounts_.fail("makeDirectory", "/x", ENOSPC);
  EXPECT_FALSE(mounts_.unmount("/mnt", false));
  EXPECT_EQ(errno, EBUSY);
  EXPECT_FALSE(mount("/dev/bad", "/other"));
  EXPECT_EQ(errno, EIO);
  EXPECT_FALSE(mounts_.makeDirectory("/x", 0755));
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(mounts_.table().size(), 1U);
  EXPECT_EQ(mounts_.calls().size(), 3U);
  mounts_.fail("unmount", "/mnt", 0);
  EXPECT_TRUE(mounts_.unmount("/mnt", false));
}

TEST_F(FakeMountsTest, ARecordWithoutADeviceIsNoneOfItsBusiness) {
  EXPECT_TRUE(mounts_.mount("vellum", "/mnt", MountFlags::none, {}));
  EXPECT_EQ(mounts_.table()[0].mountedFrom, "");
}

}  // namespace
}  // namespace quillsift
