#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "platform/linux/LinuxDeviceRegistry.h"
#include "tests/doubles/FakeProcessLauncher.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kOptions = "DrDeviceTree:/options";
constexpr const char* kVolumes = "VantorVellumVolume";
constexpr const char* kMedia = "DrMedia";
constexpr const char* kEvents = "sys/kernel/uevent_seqnum";

// Devices as the test lists them, by name.
class ListedDevices : public BlockDevices {
 public:
  struct Entry {
    BlockDevice device;
    std::optional<VolumeFacts> onDevice;  // what a look finds; none: it cannot be read
  };

  std::optional<std::vector<std::string>> names() override {
    if (!reachable) return std::nullopt;
    std::vector<std::string> all;
    for (const auto& [name, entry] : entries)
      all.push_back(name);
    return all;
  }
  std::optional<BlockDevice> device(const std::string& name) override {
    if (onDevice) onDevice(name);
    if (!entries.contains(name)) return std::nullopt;
    return entries.at(name).device;
  }
  std::optional<VolumeFacts> probe(const BlockDevice& device) override {
    probed.push_back(device.name);
    return entries.at(device.name).onDevice;
  }

  std::map<std::string, Entry> entries;
  bool reachable = true;
  std::vector<std::string> probed;
  std::function<void(const std::string& name)> onDevice;
};

VolumeFacts volume(const std::string& uuid, const std::string& label = "") {
  return {.use = "filesystem", .type = "ext4", .fileSystemUUID = uuid, .label = label};
}

std::string text(RegistryObject& object, const std::string& property) {
  const auto value = object.property(property);
  if (!value) return "(none)";
  const auto* found = std::get_if<std::string>(&*value);
  return found == nullptr ? "(not text)" : *found;
}

class LinuxDeviceRegistryTest : public testing::Test {
 protected:
  LinuxDeviceRegistryTest() {
    auto devices = std::make_unique<ListedDevices>();
    devices_ = devices.get();
    registry_ =
        std::make_unique<LinuxDeviceRegistry>(scratch_.tree(), std::move(devices), launcher_);
    scratch_.write(kEvents, "831\n");
  }

  void addRecorded(const std::string& name, const VolumeFacts& facts) {
    devices_->entries[name] = {{.name = name, .recorded = facts}, std::nullopt};
  }
  void addUnrecorded(const std::string& name, const std::optional<VolumeFacts>& onDevice) {
    devices_->entries[name] = {{.name = name}, onDevice};
  }

  // The names of all that match.
  std::vector<std::string> matching(const RegistryMatch& match) {
    const auto iterator = registry_->matchingObjects(match);
    if (!iterator) return {"(null)"};
    return rest(*iterator);
  }
  static std::vector<std::string> rest(RegistryIterator& iterator) {
    std::vector<std::string> names;
    while (const auto object = iterator.next())
      names.push_back(text(*object, "BSD Name"));
    return names;
  }

  const ScratchTree scratch_;
  FakeProcessLauncher launcher_;
  ListedDevices* devices_;
  std::unique_ptr<LinuxDeviceRegistry> registry_;
};

TEST_F(LinuxDeviceRegistryTest, CountsAsVolumesOnlyWhatHoldsAFileSystem) {
  addRecorded("a", volume("A"));
  addRecorded("b", {.use = "crypto", .type = "crypto_LUKS", .fileSystemUUID = "B"});
  addRecorded("c", {.use = "raid", .fileSystemUUID = "C"});
  addRecorded("d", {});
  EXPECT_THAT(matching({kVolumes, "", ""}), ElementsAre("a"));
  EXPECT_THAT(matching({kMedia, "", ""}), ElementsAre("a", "b", "c", "d"));
  EXPECT_THAT(matching({"DrUSB", "", ""}), IsEmpty());
}

TEST_F(LinuxDeviceRegistryTest, GivesItsPropertiesTheirTypes) {
  VolumeFacts facts = volume("CA18-AA35");
  facts.role = "320";
  addRecorded("sda1", facts);
  const auto object = registry_->matchingObject({kVolumes, "UUID", std::string("CA18-AA35")});
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(text(*object, "BSD Name"), "sda1");
  EXPECT_EQ(text(*object, "UUID"), "CA18-AA35");
  const auto role = object->property("RoleValue");
  ASSERT_TRUE(role);
  EXPECT_EQ(std::get<std::int64_t>(*role), 320);
  EXPECT_FALSE(object->property("Size"));
  EXPECT_FALSE(object->property(""));
}

TEST_F(LinuxDeviceRegistryTest, LacksThePropertiesThatADeviceHasNot) {
  addRecorded("sda", {});
  const auto object = registry_->matchingObject({kMedia, "", ""});
  ASSERT_NE(object, nullptr);
  EXPECT_FALSE(object->property("UUID"));
  EXPECT_FALSE(object->property("RoleValue"));
}

TEST_F(LinuxDeviceRegistryTest, ComparesUUIDsAsText) {
  addRecorded("a", volume("7f3b0c11-1a2b-4c3d-8e4f-0123456789ab"));
  addRecorded("b", volume("7F3B0C11-1A2B-4C3D-8E4F-0123456789AB"));
  EXPECT_THAT(matching({kVolumes, "UUID", std::string("7F3B0C11-1A2B-4C3D-8E4F-0123456789AB")}),
              ElementsAre("b"));
  EXPECT_THAT(matching({kVolumes, "UUID", std::string()}), IsEmpty());
  EXPECT_THAT(matching({kVolumes, "UUID", std::int64_t{7}}), IsEmpty());
  EXPECT_THAT(matching({kVolumes, "UUID", QSData(std::string("a"))}), IsEmpty());
}

TEST_F(LinuxDeviceRegistryTest, AUUIDThatWouldLeadElsewhereInAPathIsNone) {
  addRecorded("a", volume("/../../etc"));
  addRecorded("b", volume(".."));
  EXPECT_THAT(matching({kVolumes, "UUID", std::string("/../../etc")}), IsEmpty());
  EXPECT_THAT(matching({kVolumes, "UUID", std::string("..")}), IsEmpty());
}

TEST_F(LinuxDeviceRegistryTest, GivesThePartitionsUUIDToWhatHoldsNoFileSystem) {
  addRecorded("a", {.partitionUUID = "P"});
  EXPECT_THAT(matching({kMedia, "UUID", std::string("P")}), ElementsAre("a"));
  EXPECT_THAT(matching({kVolumes, "UUID", std::string("P")}), IsEmpty());
}

TEST_F(LinuxDeviceRegistryTest, FindsTheVolumesOfARole) {
  addRecorded("a", volume("A", "QS-PREBOOT"));
  addRecorded("b", volume("B"));
  addRecorded("c", volume("C", "QS-PREBOOT"));
  addRecorded("d", {.use = "crypto", .label = "QS-PREBOOT"});
  EXPECT_THAT(matching({kVolumes, "RoleValue", std::int64_t{16}}), ElementsAre("a", "c"));
  EXPECT_THAT(matching({kVolumes, "RoleValue", std::int64_t{192}}), IsEmpty());
  EXPECT_THAT(matching({kVolumes, "RoleValue", std::string("16")}), IsEmpty());
}

TEST_F(LinuxDeviceRegistryTest, NeverReadsADeviceThatIsRecorded) {
  addRecorded("a", volume("A"));
  addRecorded("b", {});
  EXPECT_THAT(matching({kVolumes, "UUID", std::string("A")}), ElementsAre("a"));
  EXPECT_THAT(devices_->probed, IsEmpty());
}

TEST_F(LinuxDeviceRegistryTest, LooksAtADeviceThatIsNotRecordedOnceAnObject) {
  addUnrecorded("a", volume("A", "QS-UPDATE"));
  const auto object = registry_->matchingObject({kVolumes, "RoleValue", std::int64_t{192}});
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(text(*object, "UUID"), "A");
  EXPECT_THAT(devices_->probed, ElementsAre("a"));
}

TEST_F(LinuxDeviceRegistryTest, LooksAtMediaOnlyWhenAskedWhatIsOnThem) {
  addUnrecorded("a", volume("A"));
  const auto object = registry_->matchingObject({kMedia, "", ""});
  EXPECT_EQ(text(*object, "BSD Name"), "a");
  EXPECT_THAT(devices_->probed, IsEmpty());
  EXPECT_EQ(text(*object, "UUID"), "A");
  EXPECT_THAT(devices_->probed, ElementsAre("a"));
}

TEST_F(LinuxDeviceRegistryTest, NeverWakesADriveWithoutAMedium) {
  addUnrecorded("a", volume("A"));
  devices_->entries["a"].device.hasMedium = false;
  EXPECT_THAT(matching({kVolumes, "", ""}), IsEmpty());
  EXPECT_THAT(matching({kMedia, "", ""}), ElementsAre("a"));
  EXPECT_THAT(devices_->probed, IsEmpty());
}

TEST_F(LinuxDeviceRegistryTest, SkipsWhatCannotBeReadAndWhatHasGone) {
  addUnrecorded("a", std::nullopt);
  addUnrecorded("b", volume("B"));
  addUnrecorded("c", volume("C"));
  devices_->onDevice = [&](const std::string& name) {
    if (name == "b") devices_->entries.erase("b");
  };
  EXPECT_THAT(matching({kVolumes, "", ""}), ElementsAre("c"));
}

TEST_F(LinuxDeviceRegistryTest, SaysThatTheMachineCannotBeAsked) {
  devices_->reachable = false;
  EXPECT_EQ(registry_->matchingObjects({kMedia, "", ""}), nullptr);
  EXPECT_EQ(registry_->matchingObject({kMedia, "", ""}), nullptr);
}

TEST_F(LinuxDeviceRegistryTest, AnIteratorHoldsWhileNoDeviceEventHappens) {
  addRecorded("a", volume("A"));
  const auto iterator = registry_->matchingObjects({kVolumes, "", ""});
  EXPECT_THAT(rest(*iterator), ElementsAre("a"));
  EXPECT_TRUE(iterator->isValid());
  scratch_.write(kEvents, "832\n");
  EXPECT_FALSE(iterator->isValid());
  addRecorded("b", volume("B"));
  EXPECT_EQ(iterator->next(), nullptr);
  iterator->reset();
  EXPECT_THAT(rest(*iterator), ElementsAre("a", "b"));
  EXPECT_TRUE(iterator->isValid());
}

TEST_F(LinuxDeviceRegistryTest, AnIteratorThatCannotBeAskedAnyMoreHasNoMoreAndIsInvalid) {
  addRecorded("a", volume("A"));
  const auto iterator = registry_->matchingObjects({kVolumes, "", ""});
  devices_->reachable = false;
  iterator->reset();
  EXPECT_EQ(iterator->next(), nullptr);
  EXPECT_FALSE(iterator->isValid());
}

TEST_F(LinuxDeviceRegistryTest, WithoutACounterNothingIsKnownToHaveHappened) {
  const ScratchTree scratch;
  scratch.link(kEvents, "/dev/null");
  LinuxDeviceRegistry registry(scratch.tree(), std::make_unique<ListedDevices>(), launcher_);
  EXPECT_TRUE(registry.matchingObjects({kMedia, "", ""})->isValid());
}

TEST_F(LinuxDeviceRegistryTest, ObjectsAndIteratorsOutliveIt) {
  addUnrecorded("a", volume("A"));
  const auto iterator = registry_->matchingObjects({kMedia, "", ""});
  const auto object = iterator->next();
  registry_.reset();
  EXPECT_EQ(text(*object, "UUID"), "A");
  iterator->reset();
  EXPECT_THAT(rest(*iterator), ElementsAre("a"));
}

TEST_F(LinuxDeviceRegistryTest, HoldsTheFirmwareVariables) {
  scratch_.makeDirectory("sys/firmware/efi/efivars");
  EXPECT_NE(registry_->objectAtPath(kOptions), nullptr);
  EXPECT_EQ(registry_->objectAtPath("DrDeviceTree:/"), nullptr);
  EXPECT_EQ(registry_->objectAtPath(""), nullptr);
}

}  // namespace
}  // namespace quillsift
