#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>

#include "collect/CollectionServices.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

TEST(HostCollectionServicesTest, LeaveNothingOut) {
  const auto services = hostCollectionServices();
  EXPECT_TRUE(services->isVantorInternal);
  EXPECT_TRUE(services->isVantorSilicon);
  EXPECT_TRUE(services->makeCoDiagnose);
  EXPECT_NE(services->volumes, nullptr);
  EXPECT_TRUE(services->provenanceReport);
  EXPECT_TRUE(services->companionProperties);
}

TEST(HostCollectionServicesTest, TellTheFamilyOfTheHostsSilicon) {
  TestPlatform platform;
  const auto services = hostCollectionServices();
  EXPECT_FALSE(services->isVantorSilicon());
  platform.hostInformation().setTranslated(true);
  EXPECT_TRUE(services->isVantorSilicon());
}

TEST(HostCollectionServicesTest, FindNoCompanionOnAMachineWithoutOne) {
  TestPlatform platform;
  QSError error;
  EXPECT_EQ(hostCollectionServices()->makeCoDiagnose(&error), nullptr);
  EXPECT_EQ(error.code, 1);
}

TEST(HostCollectionServicesTest, FindTheVolumesOfARole) {
  TestPlatform platform;
  const auto volume = [&](const char* uuid, std::int64_t role) {
    platform.deviceRegistry().add("", "VantorVellumVolume",
                                  {{"UUID", std::string(uuid)}, {"RoleValue", role}});
  };
  volume("A", 16);
  volume("B", 192);
  const auto services = hostCollectionServices();
  EXPECT_THAT(services->volumes->VellumVolumeUUIDsRestrictedToRole(16).value(),
              testing::ElementsAre("A"));
  EXPECT_THAT(services->volumes->VellumVolumeUUIDsRestrictedToRole(320).value(),
              testing::IsEmpty());
}

TEST(HostCollectionServicesTest, MountAVolumeInTheGivenGroup) {
  TestPlatform platform;
  platform.deviceRegistry().add("", "VantorVellumVolume",
                                {{"UUID", std::string("A")}, {"BSD Name", std::string("sda1")}});
  platform.mounts().add("/dev/sda1", "/mnt");
  const auto group = platform.workQueues().makeGroup();
  std::optional<std::string> mountedOn;
  hostCollectionServices()->volumes->EnsureVolumeIsMountedWithVolumeUUID(
      "A",
      [&](std::optional<std::string> mountPoint, bool didMount) {
        mountedOn = mountPoint;
        EXPECT_FALSE(didMount);
      },
      true, group, QOSClass::utility);
  group->wait();
  EXPECT_EQ(mountedOn, "/mnt");
}

TEST(HostCollectionServicesTest, KnowTheVolumeThatTheFirmwareNamesForAutosaves) {
  TestPlatform platform;
  // The first question in this process, whose answer is kept.
  platform.deviceRegistry().setFirmwareVariable("QS_AUTO_SAVE_VOL_UUID", std::string("A"));
  EXPECT_EQ(hostCollectionServices()->volumes->AutoSaveVolumeUUID(), "A");
}

TEST(HostCollectionServicesTest, KnowTheInstallersLogWhereThereIsOne) {
  TestPlatform platform;
  EXPECT_EQ(hostCollectionServices()->volumes->OstraLogOnTarget(), std::nullopt);
  platform.deviceRegistry().add("", "DrMedia",
                                {{"UUID", std::string("A")}, {"BSD Name", std::string("sda1")}});
  platform.mounts().add("/dev/sda1", "/mnt");
  platform.deviceRegistry().setFirmwareVariable("install-product-url",
                                                std::string("x://A/product"));
  platform.fileSystem().addFile("/mnt/product/ostra.log", "log");
  EXPECT_EQ(hostCollectionServices()->volumes->OstraLogOnTarget(), "/mnt/product/ostra.log");
}

TEST(HostCollectionServicesTest, HaveNoReportsToGiveOfAMachineThatTellsNothing) {
  TestPlatform platform;
  const auto services = hostCollectionServices();
  QSError error;
  EXPECT_EQ(services->provenanceReport(&error).has_value(), false);
  EXPECT_EQ(services->companionProperties(&error).has_value(), false);
  EXPECT_FALSE(error);
}

TEST(HostCollectionServicesTest, GiveTheMachinesReports) {
  TestPlatform platform;
  platform.hostInformation().setAnswer(kProvenanceReportKey, {std::string("factory")});
  const auto companion = std::make_shared<FakeRemoteDevice>("companion");
  companion->propertiesToGive = {{"Name", {std::string("corvane")}}};
  platform.remoteDevices().add(3, companion);
  const auto services = hostCollectionServices();
  EXPECT_THAT(services->provenanceReport(nullptr)->text(), testing::HasSubstr("factory"));
  EXPECT_THAT(services->companionProperties(nullptr)->text(), testing::HasSubstr("corvane"));
}

}  // namespace
}  // namespace quillsift
