#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/SMBIOSTable.h"

namespace quillsift {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

std::string structure(char type, std::string fields, const std::vector<std::string>& texts) {
  std::string bytes = {type, static_cast<char>(4 + fields.size()), '\x12', '\x34'};
  bytes += fields;
  for (const std::string& text : texts)
    bytes += text + '\0';
  return bytes + std::string(texts.empty() ? 2 : 1, '\0');
}

// A memory device with five texts, of this size field and extended size.
std::string module(std::uint16_t size, std::uint32_t extended = 0, std::size_t length = 0x22) {
  std::string fields(length - 4, '\0');
  const auto put = [&](std::size_t offset, std::uint64_t number, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes && offset - 4 + i < fields.size(); ++i, number >>= 8)
      fields[offset - 4 + i] = static_cast<char>(number);
  };
  put(0x0C, size, 2);
  put(0x10, 1, 1);
  put(0x11, 2, 1);
  put(0x17, 3, 1);
  put(0x18, 4, 1);
  put(0x1A, 5, 1);
  put(0x1C, extended, 4);
  return structure(17, fields, {"DIMM 0", "BANK 0", "Maker", "SN123", "PN-4  "});
}

TEST(SMBIOSTableTest, ListsTheMemoryModules) {
  const std::string table = structure(1, std::string(20, 'x'), {"system"}) + module(8192) +
                            structure(2, "", {}) + module(0x8000 | 512) + structure(127, "", {});
  const auto modules = memoryModulesIn(table);
  ASSERT_THAT(modules, SizeIs(2));
  EXPECT_EQ(modules[0].locator, "DIMM 0");
  EXPECT_EQ(modules[0].bank, "BANK 0");
  EXPECT_EQ(modules[0].manufacturer, "Maker");
  EXPECT_EQ(modules[0].serialNumber, "SN123");
  EXPECT_EQ(modules[0].partNumber, "PN-4");
  EXPECT_EQ(modules[0].bytes, std::uint64_t{8} << 30);
  EXPECT_EQ(modules[1].bytes, std::uint64_t{512} << 10);
}

TEST(SMBIOSTableTest, KnowsTheSizesThatDoNotFit) {
  EXPECT_EQ(memoryModulesIn(module(0x7FFF, 131072)).at(0).bytes, std::uint64_t{128} << 30);
  EXPECT_EQ(memoryModulesIn(module(0xFFFF)).at(0).bytes, std::nullopt);
  EXPECT_THAT(memoryModulesIn(module(0)), IsEmpty());  // an empty slot
}

TEST(SMBIOSTableTest, TakesFieldsThatAreNotThereForEmpty) {
  const auto modules = memoryModulesIn(module(1024, 0, 0x15));  // as the first version had them
  ASSERT_THAT(modules, SizeIs(1));
  EXPECT_EQ(modules[0].locator, "DIMM 0");
  EXPECT_EQ(modules[0].serialNumber, "");
}

TEST(SMBIOSTableTest, TakesTextsThatAreNotThereForEmpty) {
  std::string fields(0x22 - 4, '\x09');
  const auto modules = memoryModulesIn(structure(17, fields, {"only one"}));
  ASSERT_THAT(modules, SizeIs(1));
  EXPECT_EQ(modules[0].locator, "");
}

TEST(SMBIOSTableTest, StopsAtTheEndMark) {
  EXPECT_THAT(memoryModulesIn(structure(127, "", {}) + module(8192)), IsEmpty());
}

TEST(SMBIOSTableTest, StopsWhereTheTableIsDamaged) {
  const std::string good = module(8192);
  EXPECT_THAT(memoryModulesIn(""), IsEmpty());
  for (std::size_t length = 0; length < good.size(); ++length)
    EXPECT_THAT(memoryModulesIn(good.substr(0, length)), IsEmpty()) << length;
  std::string damaged = good + good;
  damaged[good.size() + 1] = 3;  // shorter than its header
  EXPECT_THAT(memoryModulesIn(damaged), SizeIs(1));
}

}  // namespace
}  // namespace quillsift
