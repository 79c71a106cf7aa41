#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <set>
#include <thread>
#include <vector>

#include "platform/FileDescriptor.h"
#include "platform/linux/LinuxFileSystem.h"
#include "platform/linux/LostPageGuard.h"
#include "tests/platform/linux/ScratchTree.h"

// A size that is too large must come back as the failure that it is, also under a sanitizer.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}

namespace quillsift {
namespace {

using testing::IsEmpty;
using testing::UnorderedElementsAre;

std::set<int> openDescriptors() {
  std::set<int> descriptors;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::stoi(entry.path().filename());
    if (::fcntl(descriptor, F_GETFD) != -1) descriptors.insert(descriptor);
  }
  return descriptors;
}

class LinuxFileSystemTest : public testing::Test {
 protected:
  LinuxFileSystem files() const { return LinuxFileSystem(tree_.tree()); }

  std::unique_ptr<FileHandle> open(const std::string& path, bool followLinks = true) const {
    return files().open(path, followLinks);
  }

  FileMetadata metadata(const std::string& path, bool followLinks = true) const {
    FileMetadata result;
    const auto handle = open(path, followLinks);
    EXPECT_TRUE(handle && handle->readMetadata(&result)) << path;
    return result;
  }

  // At most `limit` bytes of one read, or the reason why there are none.
  static std::string readOnce(FileHandle& handle, std::size_t limit) {
    std::string text(limit, '?');
    errno = 0;
    const auto count = handle.read(std::as_writable_bytes(std::span(text)));
    if (count < 0) return "errno " + std::to_string(errno);
    return text.substr(0, static_cast<std::size_t>(count));
  }

  std::string whole(const std::string& path) const {
    QSError error;
    const auto content = files().readWholeFile(path, &error);
    if (content) return std::string(content->text());
    EXPECT_EQ(error.domain, kPOSIXErrorDomain);
    EXPECT_EQ(error.filePath, path);
    return "errno " + std::to_string(error.code);
  }

  static std::string failure(int code) { return "errno " + std::to_string(code); }

  const ScratchTree tree_;     // the platform tree
  const ScratchTree scratch_;  // a place of the host
};

TEST_F(LinuxFileSystemTest, ReadsAFilePieceByPiece) {
  const std::string path = scratch_.write("file", "0123456789");
  const auto handle = open(path);
  ASSERT_TRUE(handle);
  EXPECT_EQ(readOnce(*handle, 4), "0123");
  EXPECT_EQ(readOnce(*handle, 40), "456789");
  EXPECT_EQ(readOnce(*handle, 40), "");
}

TEST_F(LinuxFileSystemTest, LooksEverythingUpInTheTree) {
  tree_.write("logs/a", "tree");
  tree_.makeDirectory("logs/sub");
  EXPECT_EQ(whole("/logs/a"), "tree");
  EXPECT_TRUE(files().exists("/logs/a"));
  EXPECT_FALSE(files().isDirectory("/logs/a"));
  EXPECT_TRUE(files().isDirectory("/logs/sub"));
  EXPECT_THAT(files().entryNames("/logs"), UnorderedElementsAre("a", "sub"));
}

TEST_F(LinuxFileSystemTest, HidesTheHostsDirectoryBehindTheTrees) {
  scratch_.write("dir/host", "");
  tree_.write(scratch_.directory() + "/dir/tree", "");
  EXPECT_THAT(files().entryNames(scratch_.at("dir")), UnorderedElementsAre("tree"));
}

TEST_F(LinuxFileSystemTest, FindsNothingThatTheTreeHides) {
  const std::string path = scratch_.write("file", "host");
  scratch_.write("dir/file", "host");
  tree_.link(path, "/dev/null");
  tree_.link(scratch_.at("dir"), "/dev/null");
  EXPECT_EQ(open(path), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(files().exists(path));
  EXPECT_FALSE(files().isDirectory(scratch_.at("dir")));
  EXPECT_THAT(files().entryNames(scratch_.at("dir")), IsEmpty());
  EXPECT_EQ(whole(path), failure(ENOENT));
}

TEST_F(LinuxFileSystemTest, ReadsTheHostsFileBehindADanglingLinkOfTheTree) {
  const std::string path = scratch_.write("file", "host");
  tree_.link(path, "/no/such/file");
  EXPECT_EQ(whole(path), "host");
}

TEST_F(LinuxFileSystemTest, FailsForAMissingFile) {
  EXPECT_EQ(open(scratch_.at("missing")), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(files().exists(scratch_.at("missing")));
  EXPECT_FALSE(files().isDirectory(scratch_.at("missing")));
  EXPECT_THAT(files().entryNames(scratch_.at("missing")), IsEmpty());
}

TEST_F(LinuxFileSystemTest, FailsForDanglingAndLoopingLinks) {
  const std::string dangling = scratch_.link("dangling", "missing");
  const std::string looping = scratch_.link("looping", "looping");
  EXPECT_EQ(open(dangling), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(open(looping), nullptr);
  EXPECT_EQ(errno, ELOOP);
  EXPECT_FALSE(files().exists(dangling));
  EXPECT_EQ(whole(looping), failure(ELOOP));
}

TEST_F(LinuxFileSystemTest, FailsForAFileThatMayNotBeRead) {
  const std::string path = scratch_.write("file", "secret");
  ASSERT_EQ(::chmod(path.c_str(), 0), 0);
  ASSERT_EQ(::chmod(scratch_.directory().c_str(), 0755), 0);
  const bool isRoot = ::geteuid() == 0;  // who may read everything
  ASSERT_EQ(::seteuid(isRoot ? 12345 : ::geteuid()), 0);
  const auto handle = open(path);
  const int code = errno;
  ASSERT_EQ(::seteuid(isRoot ? 0 : ::geteuid()), 0);
  EXPECT_EQ(handle, nullptr);
  EXPECT_EQ(code, EACCES);
}

TEST_F(LinuxFileSystemTest, TellsAFilesMetadata) {
  const std::string path = scratch_.write("file", "12345");
  ASSERT_EQ(::chmod(path.c_str(), 04640), 0);
  const timespec times[2] = {{.tv_sec = 1'000'000'000, .tv_nsec = 123'456'789},
                             {.tv_sec = -5, .tv_nsec = 1}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  struct statx expected {};
  ASSERT_EQ(::statx(AT_FDCWD, path.c_str(), 0, STATX_BASIC_STATS | STATX_BTIME, &expected), 0);

  const FileMetadata found = metadata(path);
  EXPECT_EQ(found.objectType, 1u);
  EXPECT_EQ(found.ownerID, ::geteuid());
  EXPECT_EQ(found.groupID, expected.stx_gid);
  EXPECT_EQ(found.accessMask, S_IFREG | 04640u);
  EXPECT_EQ(found.flags, 0u);
  EXPECT_EQ(found.protectionClass, 0u);
  EXPECT_GE(found.preferredBlockSize, 512u);
  EXPECT_EQ(found.dataLength, 5);
  ASSERT_TRUE(found.accessTime && found.modificationTime && found.changeTime);
  EXPECT_EQ(found.accessTime->tv_sec, 1'000'000'000);
  EXPECT_EQ(found.accessTime->tv_nsec, 123'456'789);
  EXPECT_EQ(found.modificationTime->tv_sec, expected.stx_mtime.tv_sec);
  EXPECT_EQ(found.modificationTime->tv_nsec, expected.stx_mtime.tv_nsec);
  EXPECT_EQ(found.changeTime->tv_sec, expected.stx_ctime.tv_sec);
  EXPECT_EQ(found.changeTime->tv_nsec, expected.stx_ctime.tv_nsec);
  EXPECT_EQ(found.creationTime.has_value(), (expected.stx_mask & STATX_BTIME) != 0);
  EXPECT_EQ(found.creationTime.value_or(timespec{}).tv_sec, expected.stx_btime.tv_sec);
  EXPECT_FALSE(found.addedTime);
}

TEST_F(LinuxFileSystemTest, LeavesOutTheBirthTimeWhereTheFileSystemKeepsNone) {
  struct statx expected {};
  ASSERT_EQ(::statx(AT_FDCWD, "/proc/version", 0, STATX_BTIME, &expected), 0);
  if ((expected.stx_mask & STATX_BTIME) != 0) GTEST_SKIP() << "/proc has birth times here";
  EXPECT_FALSE(metadata("/proc/version").creationTime);
  EXPECT_TRUE(metadata("/proc/version").modificationTime);
}

TEST_F(LinuxFileSystemTest, OpensADirectoryWithoutContent) {
  const auto handle = open(scratch_.directory());
  ASSERT_TRUE(handle);
  FileMetadata found;
  ASSERT_TRUE(handle->readMetadata(&found));
  EXPECT_EQ(found.objectType, 2u);
  EXPECT_EQ(found.dataLength, 0);
  EXPECT_EQ(readOnce(*handle, 10), failure(EISDIR));
  EXPECT_EQ(whole(scratch_.directory()), failure(EISDIR));
}

TEST_F(LinuxFileSystemTest, NeitherWaitsAtAFifoNorWakesItsWriter) {
  const std::string path = scratch_.at("fifo");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const auto handle = open(path);
  ASSERT_TRUE(handle);
  // Nobody has it open for reading, so no writer would have been let in.
  EXPECT_EQ(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC), -1);
  EXPECT_EQ(errno, ENXIO);
  FileMetadata found;
  ASSERT_TRUE(handle->readMetadata(&found));
  EXPECT_EQ(found.objectType, 7u);
  EXPECT_EQ(found.dataLength, 0);
  EXPECT_EQ(readOnce(*handle, 10), failure(EINVAL));
  EXPECT_EQ(whole(path), failure(EINVAL));
}

TEST_F(LinuxFileSystemTest, TakesNothingFromAFifoThatIsBeingWritten) {
  const std::string path = scratch_.at("fifo");
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  const FileDescriptor owner(::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  ASSERT_EQ(::write(owner.get(), "data", 4), 4);
  EXPECT_EQ(readOnce(*open(path), 10), failure(EINVAL));
  char kept[10] = {};
  EXPECT_EQ(::read(owner.get(), kept, sizeof kept), 4);
}

TEST_F(LinuxFileSystemTest, TellsASocketAndReadsNothingOfIt) {
  const std::string path = scratch_.at("socket");
  const FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(metadata(path).objectType, 6u);
  EXPECT_EQ(metadata(path).dataLength, 0);
  EXPECT_EQ(readOnce(*open(path), 10), failure(EINVAL));
  EXPECT_EQ(whole(path), failure(EINVAL));
}

TEST_F(LinuxFileSystemTest, TellsADeviceAndReadsNothingOfIt) {
  EXPECT_EQ(metadata("/dev/zero").objectType, 4u);
  EXPECT_EQ(metadata("/dev/zero").dataLength, 0);
  EXPECT_EQ(readOnce(*open("/dev/zero"), 10), failure(EINVAL));
  EXPECT_EQ(whole("/dev/zero"), failure(EINVAL));
}

TEST_F(LinuxFileSystemTest, TellsABlockDevice) {
  const std::string path = scratch_.at("block");
  if (::mknod(path.c_str(), S_IFBLK | 0600, ::makedev(7, 250)) != 0) {
    GTEST_SKIP() << "may not make a device here";
  }
  // No such device exists, so nothing but its node has been touched.
  EXPECT_EQ(metadata(path).objectType, 3u);
  EXPECT_EQ(metadata(path).dataLength, 0);
  EXPECT_EQ(whole(path), failure(EINVAL));
}

TEST_F(LinuxFileSystemTest, FollowsALinkWhenAsked) {
  scratch_.write("target", "content");
  const std::string link = scratch_.link("link", "target");
  EXPECT_EQ(metadata(link).objectType, 1u);
  EXPECT_EQ(readOnce(*open(link), 20), "content");
  EXPECT_EQ(whole(link), "content");
}

TEST_F(LinuxFileSystemTest, ReadsTheTargetOfALinkThatIsNotFollowed) {
  for (const std::string target : {"/no/such/file", "target", "loop"}) {
    const std::string path = scratch_.at("loop");
    std::filesystem::remove(path);
    scratch_.link("loop", target);
    const auto handle = open(path, false);
    ASSERT_TRUE(handle) << target;
    FileMetadata found;
    ASSERT_TRUE(handle->readMetadata(&found));
    EXPECT_EQ(found.objectType, 5u);
    ASSERT_EQ(found.dataLength, static_cast<std::int64_t>(target.size()));
    std::string text(target.size(), '?');
    EXPECT_EQ(handle->readLink(std::as_writable_bytes(std::span(text))), found.dataLength);
    EXPECT_EQ(text, target);
    EXPECT_EQ(readOnce(*handle, 10), failure(EINVAL));
    EXPECT_THAT(handle->extendedAttributes(), IsEmpty());
  }
}

TEST_F(LinuxFileSystemTest, ReadsAFileAlsoWhenLinksAreNotFollowed) {
  const std::string path = scratch_.write("file", "content");
  const auto handle = open(path, false);
  ASSERT_TRUE(handle);
  EXPECT_EQ(readOnce(*handle, 20), "content");
}

TEST_F(LinuxFileSystemTest, FailsToReadTheTargetOfWhatIsNoLink) {
  const auto handle = open(scratch_.write("file", "content"));
  std::string text(10, '?');
  EXPECT_EQ(handle->readLink(std::as_writable_bytes(std::span(text))), -1);
  EXPECT_NE(errno, 0);
}

TEST_F(LinuxFileSystemTest, ReadsTheFileThatWasOpenedAndNotItsReplacement) {
  const std::string path = scratch_.write("file", "old");
  const auto handle = open(path);
  scratch_.write("new", "new");
  std::filesystem::rename(scratch_.at("new"), path);
  EXPECT_EQ(readOnce(*handle, 10), "old");
}

TEST_F(LinuxFileSystemTest, OpensNothingElseWhileAFileGivesWayToALink) {
  const std::string path = scratch_.write("file", "content");
  const std::string fifo = scratch_.at("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const std::string link = scratch_.link("link", "fifo");
  const FileDescriptor watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  ASSERT_NE(::inotify_add_watch(watch.get(), fifo.c_str(), IN_OPEN), -1);

  std::jthread exchanging([&](const std::stop_token& stop) {
    while (!stop.stop_requested())
      ::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
  });
  std::set<std::string> seen;
  for (int round = 0; round < 20'000; ++round)
    seen.insert(readOnce(*open(path), 10));
  exchanging.request_stop();
  exchanging.join();
  for (const std::string& text : seen)
    EXPECT_THAT(text, testing::AnyOf("content", failure(EINVAL)));

  inotify_event event{};
  EXPECT_EQ(::read(watch.get(), &event, sizeof event), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(LinuxFileSystemTest, OpensAFileWhileAnotherTakesItsPlace) {
  const std::string path = scratch_.write("file", "one");
  const std::string other = scratch_.write("other", "two");
  std::jthread exchanging([&](const std::stop_token& stop) {
    while (!stop.stop_requested())
      ::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, other.c_str(), RENAME_EXCHANGE);
  });
  for (int round = 0; round < 5'000; ++round) {
    const auto handle = open(path);
    ASSERT_TRUE(handle) << errno;
    EXPECT_THAT(readOnce(*handle, 10), testing::AnyOf("one", "two"));
  }
}

TEST_F(LinuxFileSystemTest, SeesAFileGrowShrinkAndVanish) {
  const std::string path = scratch_.write("file", "0123456789");
  const auto handle = open(path);
  FileMetadata found;
  EXPECT_EQ(readOnce(*handle, 4), "0123");
  ASSERT_EQ(::truncate(path.c_str(), 20), 0);
  ASSERT_TRUE(handle->readMetadata(&found));
  EXPECT_EQ(found.dataLength, 20);
  ASSERT_EQ(::truncate(path.c_str(), 6), 0);
  EXPECT_EQ(readOnce(*handle, 10), "45");
  ASSERT_EQ(::truncate(path.c_str(), 2), 0);
  EXPECT_EQ(readOnce(*handle, 10), "");
  std::filesystem::remove(path);
  ASSERT_TRUE(handle->readMetadata(&found));
  EXPECT_EQ(found.dataLength, 2);
}

TEST_F(LinuxFileSystemTest, ReadsASparseFileAsZeros) {
  const std::string path = scratch_.write("file", "");
  ASSERT_EQ(::truncate(path.c_str(), 1'000'000), 0);
  EXPECT_EQ(whole(path), std::string(1'000'000, '\0'));
}

TEST_F(LinuxFileSystemTest, ReadsFilesOfTheKernelWhole) {
  EXPECT_EQ(metadata("/proc/version").dataLength, 0);
  EXPECT_TRUE(whole("/proc/version").starts_with("Linux version"));
  EXPECT_EQ(readOnce(*open("/proc/version"), 5), "Linux");
}

TEST_F(LinuxFileSystemTest, FailsForAFileThatOpensButCannotBeRead) {
  tree_.link("private/var/log/broken.log", "/proc/self/mem");
  const auto handle = open("/private/var/log/broken.log");
  ASSERT_TRUE(handle);
  EXPECT_EQ(readOnce(*handle, 10), failure(EIO));
  EXPECT_EQ(whole("/private/var/log/broken.log"), failure(EIO));
}

TEST_F(LinuxFileSystemTest, GivesEmptyDataForAnEmptyFile) {
  const auto content = files().readWholeFile(scratch_.write("file", ""), nullptr);
  ASSERT_TRUE(content);
  EXPECT_EQ(content->length(), 0u);
}

TEST_F(LinuxFileSystemTest, TakesNamesAsTheBytesTheyAre) {
  const std::string name = "caf\xE9\n\xFF .log";
  const std::string path = scratch_.write(name, "content");
  EXPECT_THAT(files().entryNames(scratch_.directory()), UnorderedElementsAre(name));
  EXPECT_EQ(whole(path), "content");
}

TEST_F(LinuxFileSystemTest, FindsNothingUnderAPathWithANul) {
  scratch_.write("file", "content");
  const std::string path = scratch_.at("file") + std::string("\0.log", 5);
  EXPECT_EQ(open(path), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(files().exists(path));
}

TEST_F(LinuxFileSystemTest, ListsAllEntriesOfADirectory) {
  scratch_.write(".hidden", "");
  scratch_.write("..twodots", "");
  scratch_.write("sub/below", "");
  scratch_.link("link", "sub");
  scratch_.link("dangling", "nowhere");
  EXPECT_THAT(files().entryNames(scratch_.directory()),
              UnorderedElementsAre(".hidden", "..twodots", "sub", "link", "dangling"));
  EXPECT_THAT(files().entryNames(scratch_.at("link")), UnorderedElementsAre("below"));
}

TEST_F(LinuxFileSystemTest, ListsNothingOfWhatIsNoDirectory) {
  EXPECT_THAT(files().entryNames(scratch_.write("file", "")), IsEmpty());
  EXPECT_THAT(files().entryNames(""), IsEmpty());
  EXPECT_THAT(files().entryNames(scratch_.makeDirectory("empty")), IsEmpty());
}

TEST_F(LinuxFileSystemTest, ListsADirectoryOfManyEntries) {
  for (int i = 0; i < 500; ++i)
    scratch_.link("entry-with-a-rather-long-name-" + std::to_string(i), "x");
  const auto names = files().entryNames(scratch_.directory());
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), 500u);
}

TEST_F(LinuxFileSystemTest, GivesAllExtendedAttributes) {
  const std::string path = scratch_.write("file", "content");
  const std::string bytes("\0\xFF\n", 3);
  const std::string odd = "user.caf\xE9";
  if (::setxattr(path.c_str(), "user.bytes", bytes.data(), bytes.size(), 0) != 0) {
    ASSERT_EQ(errno, ENOTSUP);
    GTEST_SKIP() << "no extended attributes in " << scratch_.directory();
  }
  ASSERT_EQ(::setxattr(path.c_str(), "user.empty", "", 0, 0), 0);
  ASSERT_EQ(::setxattr(path.c_str(), odd.c_str(), "x", 1, 0), 0);
  const auto attributes = open(path)->extendedAttributes();
  ASSERT_TRUE(attributes.contains("user.bytes"));
  EXPECT_EQ(attributes.at("user.bytes").text(), bytes);
  ASSERT_TRUE(attributes.contains("user.empty"));
  EXPECT_EQ(attributes.at("user.empty").length(), 0u);
  ASSERT_TRUE(attributes.contains(odd));
  EXPECT_EQ(attributes.at(odd).text(), "x");
}

TEST_F(LinuxFileSystemTest, GivesNoExtendedAttributesOfWhatHasNone) {
  EXPECT_THAT(open("/proc/version")->extendedAttributes(), IsEmpty());
  EXPECT_THAT(open("/dev/zero")->extendedAttributes(), IsEmpty());
}

TEST_F(LinuxFileSystemTest, TellsTheFlagsOfTheVolume) {
  std::uint64_t flags = 0;
  ASSERT_TRUE(open(scratch_.write("file", "content"))->readMountFlags(&flags));
  EXPECT_EQ(flags & kMountLocal, kMountLocal);
  ASSERT_TRUE(open(scratch_.link("link", "nowhere"), false)->readMountFlags(&flags));
  EXPECT_EQ(flags & kMountLocal, kMountLocal);
}

TEST_F(LinuxFileSystemTest, MapsExactlyWhatIsAskedFor) {
  const auto handle = open(scratch_.write("file", "0123456789"));
  EXPECT_EQ(readOnce(*handle, 3), "012");
  const auto mapped = handle->map(7);
  ASSERT_TRUE(mapped);
  EXPECT_EQ(mapped->text(), "0123456");
  EXPECT_EQ(readOnce(*handle, 3), "345");
}

TEST_F(LinuxFileSystemTest, KeepsAMappingLongerThanTheHandle) {
  const std::string path = scratch_.write("file", std::string(100'000, 'x'));
  const auto mapped = open(path)->map(100'000);
  ASSERT_TRUE(mapped);
  EXPECT_EQ(mapped->text(), std::string(100'000, 'x'));
  ASSERT_EQ(::truncate(path.c_str(), 10), 0);
  EXPECT_EQ(mapped->text(), std::string(10, 'x') + std::string(99'990, '\0'));
}

TEST_F(LinuxFileSystemTest, MapsMoreThanTheFileHasAsZeros) {
  const auto mapped = open(scratch_.write("file", "short"))->map(20'000);
  ASSERT_TRUE(mapped);
  EXPECT_EQ(mapped->text(), "short" + std::string(19'995, '\0'));
}

TEST_F(LinuxFileSystemTest, MapsNoEmptyRange) {
  for (const std::string& path :
       {scratch_.write("file", ""), scratch_.directory(), std::string("/proc/version")}) {
    errno = 0;
    EXPECT_FALSE(open(path)->map(0)) << path;
    EXPECT_EQ(errno, EINVAL) << path;
  }
}

TEST_F(LinuxFileSystemTest, MapsNothingButRegularFiles) {
  errno = 0;
  EXPECT_FALSE(open(scratch_.directory())->map(10));
  EXPECT_EQ(errno, EISDIR);
  errno = 0;
  EXPECT_FALSE(open("/dev/zero")->map(10));
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_FALSE(open(scratch_.link("link", "target"), false)->map(6));
  EXPECT_EQ(errno, EINVAL);
}

TEST_F(LinuxFileSystemTest, CopiesAFileOfTheKernelThatCannotBeMapped) {
  const auto handle = open("/proc/version");
  const auto copied = handle->map(13);
  ASSERT_TRUE(copied) << errno;
  EXPECT_EQ(copied->text(), "Linux version");
  EXPECT_EQ(readOnce(*handle, 5), "Linux");
}

TEST_F(LinuxFileSystemTest, FailsWhenSuchAFileIsShorterThanItSays) {
  const auto handle = open("/sys/kernel/uevent_seqnum");
  FileMetadata found;
  ASSERT_TRUE(handle && handle->readMetadata(&found));
  ASSERT_EQ(found.dataLength, 4096);
  errno = 0;
  EXPECT_FALSE(handle->map(4096));
  EXPECT_EQ(errno, ENODATA);
}

TEST_F(LinuxFileSystemTest, FailsToMapMoreThanThereIsRoomFor) {
  errno = 0;
  EXPECT_FALSE(open(scratch_.write("file", "content"))->map(std::size_t{1} << 62));
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(LinuxFileSystemTest, CopiesWhatCannotBeMappedAnyMore) {
  const std::string path = scratch_.write("file", "content");
  std::vector<QSData> held;
  while (held.size() < LostPageGuard::room() + 10) {
    const auto data = open(path)->map(7);
    ASSERT_TRUE(data) << held.size();
    held.push_back(*data);
  }
  for (const QSData& data : held)
    ASSERT_EQ(data.text(), "content");
  EXPECT_EQ(whole(path), "content");
}

TEST_F(LinuxFileSystemTest, TellsWhyAFileIsNeitherMappedNorRead) {
  const std::string path = scratch_.write("file", "content");
  const auto handle =
      files().adopt(::open(path.c_str(), O_WRONLY | O_CLOEXEC), /*closeOnRelease=*/true);
  errno = 0;
  EXPECT_FALSE(handle->map(7));
  EXPECT_EQ(errno, EACCES);
}

TEST_F(LinuxFileSystemTest, MapsAWholeFileThatIsReadAtOnce) {
  const std::string path = scratch_.write("file", std::string(100'000, 'x'));
  const auto content = files().readWholeFile(path, nullptr);
  ASSERT_TRUE(content);
  ASSERT_EQ(::truncate(path.c_str(), 0), 0);
  EXPECT_EQ(content->text(), std::string(100'000, '\0'));
}

TEST_F(LinuxFileSystemTest, ReadsAWholeFileOfTheKernelThatSaysMoreThanItHas) {
  EXPECT_TRUE(whole("/sys/kernel/uevent_seqnum").ends_with("\n"));
  EXPECT_LT(whole("/sys/kernel/uevent_seqnum").size(), 100u);
}

TEST_F(LinuxFileSystemTest, NeverWaitsForContentOfARegularFile) {
  // Some of the kernel's own files look regular and wait for content, such as its log.
  const std::set<int> before = openDescriptors();
  const auto handle = open(scratch_.write("file", "content"));
  int checked = 0;
  for (const int descriptor : openDescriptors()) {
    if (before.contains(descriptor)) continue;
    EXPECT_TRUE(::fcntl(descriptor, F_GETFL) & O_NONBLOCK);
    ++checked;
  }
  EXPECT_EQ(checked, 1);
}

TEST_F(LinuxFileSystemTest, ClosesWhatItOpenedAndKeepsItFromChildren) {
  const std::string file = scratch_.write("file", "content");
  const std::string link = scratch_.link("link", "file");
  const std::set<int> before = openDescriptors();
  for (const std::string& path : {file, link, scratch_.directory(), std::string("/dev/zero")}) {
    const auto handle = open(path, false);
    ASSERT_TRUE(handle);
    for (const int descriptor : openDescriptors()) {
      if (before.contains(descriptor)) continue;
      EXPECT_TRUE(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC) << path;
    }
    EXPECT_EQ(openDescriptors().size(), before.size() + 1) << path;
  }
  (void)open(scratch_.at("missing"));
  (void)whole(file);
  (void)whole("/dev/zero");
  (void)files().entryNames(scratch_.directory());
  (void)files().entryNames(file);
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LinuxFileSystemTest, ClosesAnAdoptedDescriptorOnlyWhenItIsTakenOver) {
  const std::string path = scratch_.write("file", "content");
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(readOnce(*files().adopt(descriptor, false), 4), "cont");
  EXPECT_NE(::fcntl(descriptor, F_GETFD), -1);
  EXPECT_EQ(readOnce(*files().adopt(descriptor, true), 10), "ent");
  EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
}

TEST_F(LinuxFileSystemTest, FailsWithAnAdoptedDescriptorThatIsNotOpen) {
  const auto handle = files().adopt(-1, false);
  FileMetadata found;
  EXPECT_FALSE(handle->readMetadata(&found));
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(readOnce(*handle, 10), failure(EBADF));
  EXPECT_THAT(handle->extendedAttributes(), IsEmpty());
}

TEST_F(LinuxFileSystemTest, DoesNotWaitForAnAdoptedPipe) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const FileDescriptor writer(ends[1]);
  EXPECT_EQ(readOnce(*files().adopt(ends[0], true), 10), failure(EINVAL));
}

}  // namespace
}  // namespace quillsift
