#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/linux/VolumeProbe.h"
#include "tests/platform/linux/ScratchTree.h"
#include "tests/platform/linux/VolumeImage.h"

namespace quillsift {
namespace {

TEST(VolumeProbeTest, TellsTheFileSystemOnAnImage) {
  const ScratchTree scratch;
  const auto facts =
      probeVolume(scratch.write("image", extVolumeImage("0123456789abcdef", "QS-UPDATE")));
  ASSERT_TRUE(facts);
  EXPECT_TRUE(facts->holdsFileSystem());
  EXPECT_EQ(facts->type, "ext2");
  EXPECT_EQ(facts->fileSystemUUID, "30313233-3435-3637-3839-616263646566");
  EXPECT_EQ(facts->label, "QS-UPDATE");
  EXPECT_EQ(facts->partitionType, "");
  EXPECT_EQ(facts->partitionUUID, "");
}

TEST(VolumeProbeTest, FindsNothingOnAnEmptyDevice) {
  const ScratchTree scratch;
  EXPECT_EQ(probeVolume(scratch.write("zeros", std::string(65536, '\0'))), VolumeFacts());
  EXPECT_EQ(probeVolume(scratch.write("short", "x")), VolumeFacts());
}

TEST(VolumeProbeTest, TrustsNoneOfTwoSignatures) {
  const ScratchTree scratch;
  std::string image = extVolumeImage("0123456789abcdef", "QS-UPDATE");
  image.resize(
      std::size_t{2} << 20);  // a smaller one is taken for a floppy disk, first come first served
  image.replace(0, 8, "-rom1fs-");
  const auto facts = probeVolume(scratch.write("image", image));
  ASSERT_TRUE(facts);
  EXPECT_EQ(*facts, VolumeFacts());
}

TEST(VolumeProbeTest, FailsForWhatCannotBeRead) {
  const ScratchTree scratch;
  EXPECT_EQ(probeVolume(scratch.at("missing")), std::nullopt);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(probeVolume(scratch.makeDirectory("directory")), std::nullopt);
  EXPECT_NE(errno, 0);
  // Opens, and every read fails: a device of that kind would do the same.
  const auto facts = probeVolume(scratch.link("unreadable", "/proc/self/mem"));
  EXPECT_FALSE(facts && facts->holdsFileSystem());
}

TEST(VolumeProbeTest, DoesNotWaitForAWriter) {
  const ScratchTree scratch;
  ASSERT_EQ(::mkfifo(scratch.at("fifo").c_str(), 0600), 0);
  const auto facts = probeVolume(scratch.at("fifo"));
  EXPECT_FALSE(facts && facts->holdsFileSystem());
}

}  // namespace
}  // namespace quillsift
