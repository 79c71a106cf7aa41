#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/doubles/FakeDeviceRegistry.h"

namespace quillsift {
namespace {

const RegistryMatch kAllMedia{"Media", "", {}};

class FakeDeviceRegistryTest : public testing::Test {
 protected:
  FakeDeviceRegistryTest() {
    registry_.add("", "Media", {{"BSD Name", std::string("a")}, {"Size", std::int64_t{1}}});
    registry_.add("", "Bus", {{"BSD Name", std::string("a")}});
    registry_.add("", "Media", {{"BSD Name", std::string("b")}, {"Size", std::int64_t{1}}});
  }

  static std::vector<std::string> names(RegistryIterator& iterator) {
    std::vector<std::string> found;
    while (const auto object = iterator.next())
      found.push_back(std::get<std::string>(*object->property("BSD Name")));
    return found;
  }

  FakeDeviceRegistry registry_;
};

TEST_F(FakeDeviceRegistryTest, GoesThroughTheObjectsOfAClassInOrder) {
  const auto iterator = registry_.matchingObjects(kAllMedia);
  EXPECT_EQ(names(*iterator), (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(iterator->next(), nullptr);
  iterator->reset();
  EXPECT_EQ(names(*iterator), (std::vector<std::string>{"a", "b"}));
}

TEST_F(FakeDeviceRegistryTest, MatchesAPropertyByTypeAndValue) {
  registry_.add("", "Media", {{"Raw", QSData(std::string("xy"))}});
  EXPECT_EQ(names(*registry_.matchingObjects({"Media", "BSD Name", std::string("b")})),
            (std::vector<std::string>{"b"}));
  EXPECT_NE(registry_.matchingObject({"Media", "Size", std::int64_t{1}}), nullptr);
  EXPECT_EQ(registry_.matchingObject({"Media", "Size", std::string("1")}), nullptr);
  EXPECT_NE(registry_.matchingObject({"Media", "Raw", QSData(std::string("xy"))}), nullptr);
  EXPECT_EQ(registry_.matchingObject({"Media", "Raw", QSData(std::string("xz"))}), nullptr);
  EXPECT_EQ(registry_.matchingObject({"Other", "", {}}), nullptr);
}

TEST_F(FakeDeviceRegistryTest, ASpoiledPassIsGoodAgainAfterAReset) {
  registry_.spoilNextPasses(1);
  const auto iterator = registry_.matchingObjects(kAllMedia);
  EXPECT_FALSE(iterator->isValid());
  registry_.add("", "Media", {{"BSD Name", std::string("c")}});
  EXPECT_EQ(names(*iterator).size(), 2U);
  iterator->reset();
  EXPECT_TRUE(iterator->isValid());
  EXPECT_EQ(names(*iterator).size(), 3U);
  EXPECT_EQ(registry_.resets(), 1U);
}

TEST_F(FakeDeviceRegistryTest, AnUnreachableRegistryGivesNoIterator) {
  registry_.setUnreachable(true);
  EXPECT_EQ(registry_.matchingObjects(kAllMedia), nullptr);
}

TEST_F(FakeDeviceRegistryTest, FirmwareVariablesShareOneObject) {
  EXPECT_EQ(registry_.objectAtPath("DrDeviceTree:/options"), nullptr);
  registry_.setFirmwareVariable("one", std::string("1"));
  registry_.setFirmwareVariable("two", std::string("2"));
  registry_.setFirmwareVariable("one", std::string("changed"));
  const auto options = registry_.objectAtPath("DrDeviceTree:/options");
  EXPECT_EQ(std::get<std::string>(*options->property("one")), "changed");
  EXPECT_EQ(std::get<std::string>(*options->property("two")), "2");
  EXPECT_FALSE(options->property("three"));
}

}  // namespace
}  // namespace quillsift
