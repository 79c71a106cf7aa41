#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>

#include "host/PropertyList.h"
#include "host/QSDaemonUtils.h"
#include "platform/Text.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

constexpr const char* kVariable = "QS_AUTO_SAVE_VOL_UUID";

// The value is asked for once per process: each test asks in a child process.
class QSDaemonUtilsTest : public testing::Test {
 protected:
  template <typename Body>
  static void expectInChild(const Body& body) {
    EXPECT_EXIT(std::_Exit(body() ? 0 : 1), testing::ExitedWithCode(0), "");
  }

  TestPlatform platform_;
};

TEST_F(QSDaemonUtilsTest, ReadsTheAutoSaveVolumeFromTheFirmware) {
  expectInChild([&] {
    platform_.deviceRegistry().setFirmwareVariable(kVariable, QSData(std::string("CA18-AA35")));
    return QSDaemonUtils::AutoSaveVolumeUUID() == "CA18-AA35";
  });
}

TEST_F(QSDaemonUtilsTest, KeepsTheAutoSaveVolumeOfTheFirstCall) {
  expectInChild([&] {
    platform_.deviceRegistry().setFirmwareVariable(kVariable, std::string("first"));
    if (QSDaemonUtils::AutoSaveVolumeUUID() != "first") return false;
    platform_.deviceRegistry().setFirmwareVariable(kVariable, std::string("second"));
    return QSDaemonUtils::AutoSaveVolumeUUID() == "first";
  });
}

TEST_F(QSDaemonUtilsTest, RemembersThatThereIsNoAutoSaveVolume) {
  expectInChild([&] {
    if (QSDaemonUtils::AutoSaveVolumeUUID()) return false;
    platform_.deviceRegistry().setFirmwareVariable(kVariable, std::string("late"));
    return !QSDaemonUtils::AutoSaveVolumeUUID();
  });
}

TEST_F(QSDaemonUtilsTest, KeepsAnEmptyAutoSaveVolumeApartFromNone) {
  expectInChild([&] {
    platform_.deviceRegistry().setFirmwareVariable(kVariable, std::string());
    return QSDaemonUtils::AutoSaveVolumeUUID() == "";
  });
}

class MountedVolumesTest : public testing::Test {
 protected:
  void addMedium(RegistryProperties properties) {
    platform_.deviceRegistry().add("", "DrMedia", std::move(properties));
  }
  void addMounted(const std::string& uuid, const std::string& name, const std::string& mountPoint) {
    addMedium({{"UUID", uuid}, {"BSD Name", name}});
    platform_.mounts().add("/dev/" + name, mountPoint);
  }

  TestPlatform platform_;
};

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

TEST_F(MountedVolumesTest, MapsEachMountedVolumeToItsMountPoint) {
  addMounted("B", "sdb1", "/b");
  addMounted("A", "sda1", "/a");
  addMedium({{"UUID", std::string("C")}, {"BSD Name", std::string("sdc1")}});
  platform_.deviceRegistry().add("", "VantorVellumVolume",
                                 {{"UUID", std::string("D")}, {"BSD Name", std::string("sda1")}});
  EXPECT_THAT(QSDaemonUtils::MountedVolumesUUIDsToMountPoints(),
              ElementsAre(Pair("A", "/a"), Pair("B", "/b")));
}

TEST_F(MountedVolumesTest, LeavesOutWhatHasNoNameOrNoUUID) {
  platform_.mounts().add("/dev/sda1", "/a");
  addMedium({{"UUID", std::string("A")}});
  addMedium({{"BSD Name", std::string("sda1")}});
  addMedium({{"UUID", std::int64_t{1}}, {"BSD Name", std::string("sda1")}});
  EXPECT_THAT(QSDaemonUtils::MountedVolumesUUIDsToMountPoints(), IsEmpty());
}

TEST_F(MountedVolumesTest, LetsTheLaterOfTwoVolumesWithOneUUIDCount) {
  addMounted("A", "sda1", "/first");
  addMounted("A", "sda2", "/second");
  addMedium({{"UUID", std::string("A")}, {"BSD Name", std::string("sda3")}});
  EXPECT_THAT(QSDaemonUtils::MountedVolumesUUIDsToMountPoints(), ElementsAre(Pair("A", "/second")));
}

TEST_F(MountedVolumesTest, TakesTheFirstOfTwoMountPointsAsTheTableHasIt) {
  addMounted("A", "sda1", "relative");
  platform_.mounts().add("/dev/sda1", "/second");
  addMounted("B", "sdb1", "");
  EXPECT_THAT(QSDaemonUtils::MountedVolumesUUIDsToMountPoints(),
              ElementsAre(Pair("A", "relative"), Pair("B", "")));
}

TEST_F(MountedVolumesTest, ComparesAndCopiesNamesUpToALength) {
  const std::string name(1019, 'x');  // 1024 with "/dev/" before it
  addMedium({{"UUID", std::string("A")}, {"BSD Name", name + "1"}});
  platform_.mounts().add("/dev/" + name + "2", "/" + std::string(2000, 'y'));
  EXPECT_EQ(QSDaemonUtils::MountedVolumesUUIDsToMountPoints().at("A").size(), 1024u);
  platform_.deviceRegistry().add("", "DrMedia",
                                 {{"UUID", std::string("B")}, {"BSD Name", name.substr(1) + "3"}});
  EXPECT_EQ(QSDaemonUtils::MountedVolumesUUIDsToMountPoints().count("B"), 0u);
}

TEST_F(MountedVolumesTest, KnowsNoneWhereTheRegistryCannotBeAsked) {
  addMounted("A", "sda1", "/a");
  platform_.deviceRegistry().setUnreachable(true);
  EXPECT_THAT(QSDaemonUtils::MountedVolumesUUIDsToMountPoints(), IsEmpty());
}

TEST_F(MountedVolumesTest, ReadsTheAttributesOfAFileThatStaysOpen) {
  const auto file = platform_.fileSystem().addFile("/a", "");
  file->extendedAttributes = {{"user.empty", QSData()},
                              {"user.\xFF", QSData(std::string("value"))}};
  platform_.fileSystem().addDescriptor(7, file);
  const auto attributes = QSDaemonUtils::ExtendedAttributesWithFileDescriptor(7);
  EXPECT_EQ(attributes.size(), 2u);
  EXPECT_EQ(attributes.at("user.empty").length(), 0u);
  EXPECT_EQ(attributes.at("user.\xFF").text(), "value");
  EXPECT_EQ(platform_.fileSystem().operations().front(),
            (MemoryFileSystem::Operation{"adopt", "descriptor 7", 0}));
  EXPECT_THAT(QSDaemonUtils::ExtendedAttributesWithFileDescriptor(8), IsEmpty());
}

class OstraTest : public MountedVolumesTest {
 protected:
  static std::string cookie(const std::string& url) {
    return std::string(
        PropertyList(PropertyList::Dictionary{{"Product URL", url}}).toXML()->text());
  }
  std::shared_ptr<MemoryFile> addCookie(const std::string& mountPoint, const std::string& content,
                                        time_t seconds, long nanoseconds = 0) {
    const auto file =
        platform_.fileSystem().addFile(joinedPath(mountPoint, ".OstraProductInfo"), content);
    file->metadata.modificationTime = timespec{seconds, nanoseconds};
    return file;
  }
  static std::optional<std::string> fromCookies(const std::vector<std::string>& mountPoints) {
    return QSDaemonUtils::OstraProductURLFromOstraCookieFileForMountPoints(mountPoints);
  }
  std::optional<std::string> fromVariable(const std::string& url) {
    platform_.deviceRegistry().setFirmwareVariable("install-product-url", QSData(url));
    return QSDaemonUtils::OstraProductURLFromOstraCookieNVRAMVariableForUUIDsToMountPoints(
        {{"7F3B", "/seven"}, {"CA18", "/ca/"}, {"EMPTY", ""}});
  }
};

TEST_F(OstraTest, TheNewestCookieCounts) {
  addCookie("/a", cookie("file:///old"), 100, 5);
  addCookie("/b", cookie("file:///new"), 100, 7);
  addCookie("/c", cookie("file:///between"), 100, 6);
  EXPECT_EQ(fromCookies({"/a", "/b", "/c"}), "/b/new");
  EXPECT_EQ(fromCookies({"/c", "/a"}), "/c/between");
}

TEST_F(OstraTest, OfEquallyNewCookiesTheLaterVolumesCounts) {
  addCookie("/a", cookie("file:///one"), 100);
  addCookie("/b", cookie("file:///two"), 100);
  EXPECT_EQ(fromCookies({"/a", "/b"}), "/b/two");
  EXPECT_EQ(fromCookies({"/b", "/a"}), "/a/one");
}

TEST_F(OstraTest, ACookieWithoutADateIsAsOldAsCanBe) {
  addCookie("/a", cookie("file:///a"), 1);
  addCookie("/b", cookie("file:///b"), 1)->metadata.modificationTime.reset();
  EXPECT_EQ(fromCookies({"/a", "/b"}), "/a/a");
  EXPECT_EQ(fromCookies({"/b"}), "/b/b");
}

TEST_F(OstraTest, ThePathOfTheURLIsThePlaceOnTheVolume) {
  addCookie("/a/", cookie("x://ignored/Install%20Me.app/?q#f"), 1);
  EXPECT_EQ(fromCookies({"/a/"}), "/a/Install Me.app");
  addCookie("/b", cookie("relative"), 1);
  EXPECT_EQ(fromCookies({"/b"}), "/b/relative");
  addCookie("/c", cookie("x://host"), 1);
  EXPECT_EQ(fromCookies({"/c"}), "/c");
}

TEST_F(OstraTest, ACookieWithoutAProductIsNone) {
  addCookie("/good", cookie("file:///good"), 1);
  for (const std::string& content :
       {std::string(), std::string("no property list"), std::string("<plist><dict></dict></plist>"),
        std::string("<plist><array><string>Product URL</string></array></plist>"),
        std::string("<plist><dict><key>product url</key><string>file:///x</string></dict></plist>"),
        std::string("<plist><dict><key>Product URL</key><true/></dict></plist>"), cookie(""),
        cookie("file:///bad%zz"), cookie("file:///../etc"), cookie("file:///a/%2e%2E/%2e.%2Fetc"),
        cookie(".."), cookie("file:///x") + std::string(1 << 20, ' ')}) {
    addCookie("/bad", content, 100);
    EXPECT_EQ(fromCookies({"/bad"}), std::nullopt) << content.substr(0, 100);
    EXPECT_EQ(fromCookies({"/good", "/bad"}), "/good/good") << content.substr(0, 100);
  }
}

TEST_F(OstraTest, WhatIsNoSmallFileIsNeverRead) {
  const auto odd = addCookie("/odd", cookie("file:///x"), 100);
  const auto neverRead = [&] {
    const bool none = !fromCookies({"/odd"});
    for (const auto& operation : platform_.fileSystem().operations())
      EXPECT_NE(operation.name, "read");
    return none;
  };
  for (const std::uint32_t type : {0u, 2u, 3u, 4u, 5u, 6u, 7u}) {
    odd->metadata.objectType = type;
    EXPECT_TRUE(neverRead()) << type;
  }
  odd->metadata.objectType = 1;
  odd->metadata.dataLength = std::int64_t{1} << 40;
  EXPECT_TRUE(neverRead());
  odd->metadata.dataLength = -1;
  EXPECT_TRUE(neverRead());
  odd->metadataError = EIO;
  EXPECT_TRUE(neverRead());
  platform_.fileSystem().failOpen("/odd/.OstraProductInfo", EACCES);
  EXPECT_TRUE(neverRead());
  EXPECT_TRUE(!fromCookies({"/missing"}) && !fromCookies({}));
}

TEST_F(OstraTest, ACookieThatCannotBeReadToItsEndIsNone) {
  const auto file = addCookie("/a", cookie("file:///x"), 1);
  file->shrinkTo(10);
  EXPECT_EQ(fromCookies({"/a"}), std::nullopt);
  addCookie("/b", cookie("file:///x"), 1)->readError = EIO;
  EXPECT_EQ(fromCookies({"/b"}), std::nullopt);
}

TEST_F(OstraTest, TheVariableNamesAVolumeByItsExactUUID) {
  EXPECT_EQ(fromVariable("x://7F3B/Install%20Me"), "/seven/Install Me");
  EXPECT_EQ(fromVariable("x://CA18/a/"), "/ca/a");
  EXPECT_EQ(fromVariable("x://CA18"), "/ca/");
  EXPECT_EQ(fromVariable("x://EMPTY/a"), "/a");
  EXPECT_EQ(fromVariable("x://7f3b/a"), std::nullopt);
  EXPECT_EQ(fromVariable("file:///a"), std::nullopt);
  EXPECT_EQ(fromVariable(""), std::nullopt);
  EXPECT_EQ(fromVariable("x://7F3B/%zz"), std::nullopt);
  EXPECT_EQ(fromVariable("x://7F3B/\xFF"), std::nullopt);  // no text
  EXPECT_EQ(fromVariable("x://7F3B/../etc"), std::nullopt);
  EXPECT_EQ(fromVariable("x://7F3B/a..b/...c"), "/seven/a..b/...c");
}

TEST_F(OstraTest, WithoutTheVariableItNamesNothing) {
  EXPECT_EQ(
      QSDaemonUtils::OstraProductURLFromOstraCookieNVRAMVariableForUUIDsToMountPoints({{"", "/a"}}),
      std::nullopt);
}

class OstraLogTest : public OstraTest {
 protected:
  OstraLogTest() {
    addMounted("A", "sda1", "/a");
    addMounted("B", "sdb1", "/b");
    addCookie("/b", cookie("file:///cookie"), 1);
    platform_.deviceRegistry().setFirmwareVariable("install-product-url",
                                                   std::string("x://A/variable"));
  }
  void addLog(const std::string& path) { platform_.fileSystem().addFile(path, "log"); }
};

TEST_F(OstraLogTest, LiesBesideTheProductThatTheVariableNames) {
  addLog("/a/variable/ostra.log");
  addLog("/b/cookie/ostra.log");
  EXPECT_EQ(QSDaemonUtils::OstraLogOnTarget(), "/a/variable/ostra.log");
}

TEST_F(OstraLogTest, ElseBesideThatOfTheCookie) {
  addLog("/b/cookie/ostra.log");
  EXPECT_EQ(QSDaemonUtils::OstraLogOnTarget(), "/b/cookie/ostra.log");
}

TEST_F(OstraLogTest, AVariableThatNamesNoMountedVolumeLeavesItToTheCookies) {
  addLog("/a/variable/ostra.log");
  addLog("/b/cookie/ostra.log");
  platform_.deviceRegistry().setFirmwareVariable("install-product-url",
                                                 std::string("x://OTHER/variable"));
  EXPECT_EQ(QSDaemonUtils::OstraLogOnTarget(), "/b/cookie/ostra.log");
}

TEST_F(OstraLogTest, IsNoneWhereNoProductHasOne) {
  EXPECT_EQ(QSDaemonUtils::OstraLogOnTarget(), std::nullopt);
  addLog("/a/ostra.log");
  addLog("/b/ostra.log");
  EXPECT_EQ(QSDaemonUtils::OstraLogOnTarget(), std::nullopt);
}

TEST_F(OstraLogTest, IsNoneWithoutVolumes) {
  addLog("/a/variable/ostra.log");
  platform_.deviceRegistry().setUnreachable(true);
  EXPECT_EQ(QSDaemonUtils::OstraLogOnTarget(), std::nullopt);
}

}  // namespace
}  // namespace quillsift
