#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/linux/ProvenanceReport.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using Dictionary = SystemValue::Dictionary;
using testing::ElementsAre;
using testing::Pair;

class ProvenanceReportTest : public testing::Test {
 protected:
  ProvenanceReportTest() {
    // No test may see the machine's own.
    for (const char* place : kPlaces)
      scratch_.link(place, "/dev/null");
  }
  // A file in one of the places, which then are the test's own.
  void put(const std::string& path, std::string_view content) const {
    for (const char* place : kPlaces) {
      if (path.starts_with(place) && std::filesystem::is_symlink(scratch_.at(place))) {
        std::filesystem::remove(scratch_.at(place));
      }
    }
    scratch_.write(path, content);
  }
  Dictionary report() const {
    const auto value = provenanceReport(*scratch_.tree());
    return value ? std::get<Dictionary>(value->value) : Dictionary();
  }
  // Texts of one of its dictionaries by name, and of those within by "outer/inner".
  static std::map<std::string, std::string> texts(const Dictionary& entries,
                                                  const std::string& prefix = "") {
    std::map<std::string, std::string> found;
    for (const auto& [name, entry] : entries) {
      if (const auto* text = std::get_if<std::string>(&entry.value)) found[prefix + name] = *text;
      if (const auto* data = std::get_if<QSData>(&entry.value)) {
        found[prefix + name] = "data " + std::to_string(data->length());
      }
      if (const auto* inner = std::get_if<Dictionary>(&entry.value)) {
        found.merge(texts(*inner, prefix + name + "/"));
      }
    }
    return found;
  }

  static constexpr const char* kPlaces[] = {"sys/class/dmi/id",        "sys/firmware/vpd",
                                            "sys/firmware/devicetree", "sys/block",
                                            "sys/class/net",           "sys/firmware/dmi"};
  const ScratchTree scratch_;
};

TEST_F(ProvenanceReportTest, IsNoneOfAMachineThatTellsNothing) {
  EXPECT_FALSE(provenanceReport(*scratch_.tree()).has_value());
  put("sys/class/dmi/id/product_serial", "\n");
  EXPECT_FALSE(provenanceReport(*scratch_.tree()).has_value());
}

TEST_F(ProvenanceReportTest, HasWhatTheFirmwareSaysOfTheMachine) {
  put("sys/class/dmi/id/product_serial", " SN 1 \n");
  put("sys/class/dmi/id/board_name", "Board\n");
  put("sys/class/dmi/id/chassis_asset_tag", "   \n");
  put("sys/class/dmi/id/modalias", "dmi:...\n");
  put("sys/class/dmi/id/uevent", "MODALIAS\n");
  put("sys/class/dmi/id/power/control", "auto\n");
  put("sys/firmware/vpd/ro/serial_number", "VPD1");
  put("sys/firmware/vpd/rw/secret", "not of the factory");
  put("sys/firmware/devicetree/base/serial-number", std::string_view("DT1\0", 4));
  put("sys/firmware/devicetree/base/compatible", "board");
  EXPECT_THAT(texts(report()),
              ElementsAre(Pair("DMI/board_name", "Board"), Pair("DMI/product_serial", "SN 1"),
                          Pair("DeviceTree/serial-number", "DT1"),
                          Pair("VitalProductData/serial_number", "VPD1")));
}

TEST_F(ProvenanceReportTest, GivesBytesThatAreNoTextAsData) {
  put("sys/firmware/vpd/ro/calibration", std::string_view("\x01\xFF\x02\n", 4));
  EXPECT_THAT(texts(report()), ElementsAre(Pair("VitalProductData/calibration", "data 4")));
}

TEST_F(ProvenanceReportTest, HasTheDisksOfEachKind) {
  put("sys/block/nvme0n1/device/model", "Fast  \n");
  put("sys/block/nvme0n1/device/serial", "N1\n");
  put("sys/block/nvme0n1/device/firmware_rev", "F1\n");
  put("sys/block/nvme0n1/wwid", "eui.1\n");
  put("sys/block/sda/device/model", "Big\n");
  put("sys/block/sda/device/vpd_pg80", std::string_view("\0\x80\0\x06  S123garbage", 17));
  put("sys/block/vda/serial", "V1\n");
  put("sys/block/mmcblk0/device/cid", "c1d\n");
  put("sys/block/loop0/size", "0\n");
  EXPECT_THAT(
      texts(report()),
      ElementsAre(
          Pair("BlockDevices/mmcblk0/cid", "c1d"), Pair("BlockDevices/nvme0n1/firmware_rev", "F1"),
          Pair("BlockDevices/nvme0n1/model", "Fast"), Pair("BlockDevices/nvme0n1/serial", "N1"),
          Pair("BlockDevices/nvme0n1/wwid", "eui.1"), Pair("BlockDevices/sda/model", "Big"),
          Pair("BlockDevices/sda/serial", "S123"), Pair("BlockDevices/vda/serial", "V1")));
}

TEST_F(ProvenanceReportTest, StandsASerialPageOfAnyLength) {
  for (const std::string_view page :
       {std::string_view(""), std::string_view("\0\x80\0", 3), std::string_view("\0\x80\0\0", 4),
        std::string_view("\0\x80\0\xFF", 4)}) {
    put("sys/block/sda/device/vpd_pg80", page);
    EXPECT_FALSE(provenanceReport(*scratch_.tree()).has_value());
  }
  put("sys/block/sda/device/vpd_pg80", std::string_view("\0\x80\0\xFFS1", 6));
  EXPECT_THAT(texts(report()), ElementsAre(Pair("BlockDevices/sda/serial", "S1")));
}

TEST_F(ProvenanceReportTest, HasPermanentNetworkAddresses) {
  const auto interface = [this](const std::string& name, const char* origin, const char* address) {
    put("sys/class/net/" + name + "/addr_assign_type", origin);
    put("sys/class/net/" + name + "/address", address);
  };
  interface("eth0", "0\n", "02:00:00:00:00:01\n");
  interface("random", "1\n", "02:00:00:00:00:02\n");
  interface("given", "3\n", "02:00:00:00:00:03\n");
  interface("lo", "0\n", "00:00:00:00:00:00\n");
  interface("member", "3\n", "02:00:00:00:00:04\n");
  put("sys/class/net/member/bonding_slave/perm_hwaddr", "02:00:00:00:00:05\n");
  EXPECT_THAT(texts(report()), ElementsAre(Pair("NetworkInterfaces/eth0", "02:00:00:00:00:01"),
                                           Pair("NetworkInterfaces/member", "02:00:00:00:00:05")));
}

TEST_F(ProvenanceReportTest, HasTheMemoryModules) {
  std::string table(0x22, '\0');
  table[0] = 17;
  table[1] = 0x22;
  table[0x0D] = 0x10;  // 4096 MB
  table[0x10] = 1;
  table[0x18] = 2;
  table += std::string("DIMM 0\0SN1\0\0", 12);
  put("sys/firmware/dmi/tables/DMI", table);
  const Dictionary found = report();
  const auto& modules = std::get<SystemValue::Array>(found.at("MemoryModules").value);
  ASSERT_EQ(modules.size(), 1U);
  const auto& facts = std::get<Dictionary>(modules[0].value);
  EXPECT_THAT(texts(facts), ElementsAre(Pair("Locator", "DIMM 0"), Pair("SerialNumber", "SN1")));
  EXPECT_EQ(std::get<std::uint64_t>(facts.at("Bytes").value), std::uint64_t{4} << 30);
}

}  // namespace
}  // namespace quillsift
