#include <gtest/gtest.h>

#include <cerrno>

#include "codiagnose/QSCorvaneDiagnose.h"
#include "collect/HostReports.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

using Dictionary = SystemValue::Dictionary;
using Array = SystemValue::Array;

template <typename T>
SystemValue valueOf(T value) {
  return {std::move(value)};
}

class HostReportsTest : public testing::Test {
 protected:
  // Reads a report back; none without one.
  static std::optional<PropertyList> readBack(const std::optional<QSData>& xml) {
    return xml ? PropertyList::fromXML(xml->text()) : std::nullopt;
  }
  std::optional<PropertyList> companion(Dictionary properties) {
    const auto device = std::make_shared<FakeRemoteDevice>("companion");
    device->propertiesToGive = std::move(properties);
    platform_.remoteDevices().add(kCompanionDeviceType, device);
    return readBack(companionPropertiesOfHost(&error_));
  }

  TestPlatform platform_;
  QSError error_;
};

TEST_F(HostReportsTest, KeepEveryTypeThatAPropertyListHas) {
  const auto list = propertyListOf(valueOf(Dictionary{
      {"text", valueOf(std::string("a"))},
      {"truth", valueOf(true)},
      {"negative", valueOf(std::int64_t{-1})},
      {"huge", valueOf(~std::uint64_t{0})},
      {"real", valueOf(0.5)},
      {"data", valueOf(QSData(std::string("\0b", 2)))},
      {"date", valueOf(QSDate{86400})},
      {"array", valueOf(Array{valueOf(std::int64_t{1}), valueOf(Dictionary{})})},
  }));
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(*list->find("text")->get<std::string>(), "a");
  EXPECT_EQ(*list->find("truth")->get<bool>(), true);
  EXPECT_EQ(*list->find("negative")->get<std::int64_t>(), -1);
  EXPECT_EQ(*list->find("huge")->get<std::uint64_t>(), ~std::uint64_t{0});
  EXPECT_EQ(*list->find("real")->get<double>(), 0.5);
  EXPECT_EQ(list->find("data")->get<QSData>()->length(), 2U);
  EXPECT_EQ(list->find("date")->get<QSDate>()->secondsSince1970, 86400);
  EXPECT_EQ(list->find("array")->get<PropertyList::Array>()->size(), 2U);
}

TEST_F(HostReportsTest, WriteAUUIDAsText) {
  SystemValue::UUID uuid;
  for (std::size_t i = 0; i < uuid.size(); ++i)
    uuid[i] = static_cast<std::uint8_t>(0xA0 + 5 * i);
  EXPECT_EQ(*propertyListOf(valueOf(uuid))->get<std::string>(),
            "A0A5AAAF-B4B9-BEC3-C8CD-D2D7DCE1E6EB");
}

TEST_F(HostReportsTest, KnowNoListOfNothing) {
  EXPECT_FALSE(propertyListOf(SystemValue()).has_value());
  EXPECT_FALSE(propertyListOf(valueOf(Array{valueOf(true), SystemValue()})).has_value());
  EXPECT_FALSE(
      propertyListOf(valueOf(Dictionary{{"a", valueOf(Array{SystemValue()})}})).has_value());
}

// --- Factory data ---

TEST_F(HostReportsTest, GiveTheMachinesFactoryData) {
  platform_.hostInformation().setAnswer("ReportProvenanceDiagnostic",
                                        valueOf(Dictionary{{"Model", valueOf(std::string("M"))}}));
  const auto xml = provenanceReportOfHost(&error_);
  ASSERT_TRUE(xml.has_value());
  EXPECT_TRUE(
      xml->text().starts_with("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist "
                              "version=\"1.0\">"));
  EXPECT_EQ(*readBack(xml)->find("Model")->get<std::string>(), "M");
  EXPECT_FALSE(error_);
}

TEST_F(HostReportsTest, TakeAnAnswerOfAnyShape) {
  platform_.hostInformation().setAnswer("ReportProvenanceDiagnostic", valueOf(std::string("M")));
  EXPECT_EQ(*readBack(provenanceReportOfHost(&error_))->get<std::string>(), "M");
}

TEST_F(HostReportsTest, HaveNoFactoryDataWhereTheSystemKnowsNone) {
  EXPECT_FALSE(provenanceReportOfHost(&error_).has_value());
  EXPECT_FALSE(error_);
}

TEST_F(HostReportsTest, FailWithFactoryDataThatAreNoPropertyList) {
  for (const SystemValue& answer :
       {SystemValue(), valueOf(Dictionary{{"a", SystemValue()}}), valueOf(std::string("\x01"))}) {
    error_ = {};
    platform_.hostInformation().setAnswer("ReportProvenanceDiagnostic", answer);
    EXPECT_FALSE(provenanceReportOfHost(&error_).has_value());
    EXPECT_EQ(error_.domain, kPOSIXErrorDomain);
    EXPECT_EQ(error_.code, EINVAL);
    EXPECT_FALSE(provenanceReportOfHost(nullptr).has_value());
  }
}

// --- The companion ---

TEST_F(HostReportsTest, GiveTheCompanionsProperties) {
  const auto list = companion({{"Name", valueOf(std::string("C"))},
                               {"Id", valueOf(SystemValue::UUID{})},
                               {"Count", valueOf(std::uint64_t{7})}});
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(*list->find("Name")->get<std::string>(), "C");
  EXPECT_EQ(*list->find("Id")->get<std::string>(), "00000000-0000-0000-0000-000000000000");
  EXPECT_EQ(*list->find("Count")->get<std::int64_t>(), 7);
  EXPECT_EQ(platform_.remoteDevices().typesAsked(), std::vector<std::uint32_t>{3});
}

TEST_F(HostReportsTest, LeaveOutPropertiesThatAreNoPropertyList) {
  const auto list = companion({{"Good", valueOf(true)},
                               {"Nothing", SystemValue()},
                               {"Nothing within", valueOf(Array{valueOf(true), SystemValue()})},
                               {"Bytes", valueOf(std::string("\xFF"))},
                               {"Control", valueOf(std::string("a\x01"))},
                               {"Bad name \xFF", valueOf(true)}});
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(list->get<PropertyList::Dictionary>()->size(), 1U);
  EXPECT_NE(list->find("Good"), nullptr);
}

TEST_F(HostReportsTest, GiveAnEmptyListForACompanionWithoutProperties) {
  const auto list = companion({});
  ASSERT_TRUE(list.has_value());
  EXPECT_TRUE(list->get<PropertyList::Dictionary>()->empty());
}

TEST_F(HostReportsTest, HaveNothingOfACompanionThatIsNotThereOrDoesNotTell) {
  EXPECT_FALSE(companionPropertiesOfHost(&error_).has_value());
  platform_.remoteDevices().add(kCompanionDeviceType,
                                std::make_shared<FakeRemoteDevice>("companion"));
  EXPECT_FALSE(companionPropertiesOfHost(&error_).has_value());
  EXPECT_FALSE(error_);
}

}  // namespace
}  // namespace quillsift
