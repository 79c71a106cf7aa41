#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/tools/ScratchMachine.h"

namespace quillsift::tools {
namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* kKeelboot = "/System/Volumes/Keelboot";

class FileListingTest : public testing::Test {
 protected:
  FileListingTest() {
    machine_.program("ls", "for last; do :; done; echo ls: \"$@\"; test -d \"$last\" || exit 2");
    machine_.program("lsattr", "echo lsattr: \"$@\"; echo noise >&2; exit 1");
    machine_.program("getfattr", "echo getfattr: \"$@\"; echo noise >&2");
  }
  RunResult listed(const std::string& directory) {
    return machine_.run("/bin/ls", {"-la@OR", directory});
  }
  ScratchMachine machine_;
};

TEST_F(FileListingTest, ShowsFilesFlagsAndAttributes) {
  machine_.directory("/mnt/volume");
  const std::string directory = machine_.root() + "/mnt/volume";
  const RunResult result = listed("/mnt/volume");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, StartsWith("ls: -laR --time-style=full-iso -- " + directory + "\n"));
  EXPECT_THAT(result.output, HasSubstr("lsattr: -Ra " + directory + "\n"));
  EXPECT_THAT(result.output, HasSubstr("getfattr: -R -h -P -d -m - " + directory + "\n"));
  EXPECT_THAT(result.output, Not(HasSubstr("noise")));
}

TEST_F(FileListingTest, LooksThePlansDirectoryUpInTheTree) {
  machine_.directory("/boot/firmware");
  machine_.treeLink(kKeelboot, machine_.root() + "/boot/firmware");
  EXPECT_THAT(listed(kKeelboot).output, HasSubstr(" -- " + machine_.root() + "/boot/firmware\n"));
}

TEST_F(FileListingTest, LeavesTheHostsMessageAndCodeForAMissingDirectory) {
  const RunResult result = listed("/mnt/absent");
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_THAT(result.output, StartsWith("ls: -laR"));
  EXPECT_THAT(result.output, Not(HasSubstr("lsattr")));
}

TEST_F(FileListingTest, SaysWhenTheTreeHidesTheDirectory) {
  machine_.directory(kKeelboot);
  machine_.treeLink(kKeelboot, "/dev/null");
  const RunResult result = listed(kKeelboot);
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.output, "ls: no /System/Volumes/Keelboot on this system\n");
}

TEST_F(FileListingTest, HandsOtherArgumentsToTheHostsProgram) {
  machine_.program("ls", "echo \"$@\"; exit 5");
  const RunResult result = machine_.run("/bin/ls", {"-l", "/mnt"});
  EXPECT_EQ(result.exitCode, 5);
  EXPECT_EQ(result.output, "-l /mnt\n");
}

}  // namespace
}  // namespace quillsift::tools
