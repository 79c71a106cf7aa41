#include <gtest/gtest.h>

#include <string>

#include "daemon/protocol/QSJobInfo.h"
#include "platform/Text.h"

namespace quillsift {
namespace {

WireDictionary fullRecord() {
  return {
      {"QSJobInfoUUID", WireValue("11111111-2222-4333-8444-555555555555")},
      {"QSJobInfoRelativeFilePathAndName", WireValue("Logs/install.log")},
      {"QSJobInfoSize", WireValue(std::uint64_t{1234})},
      {"QSJobInfoFailureReason", WireValue("Exited with Code:3")},
      {"QSJobInfoDateFinished", WireValue(1700000000.25)},
      {"QSJobInfoJobStatus", WireValue(std::int64_t{2})},
      {"QSJobInfoSensitive", WireValue(true)},
  };
}

WireDictionary with(const char* key, WireValue value) {
  WireDictionary record = fullRecord();
  record.insert_or_assign(key, std::move(value));
  return record;
}

WireDictionary without(const char* key) {
  WireDictionary record = fullRecord();
  WireDictionary rest;
  for (const auto& [name, value] : record)
    if (name != key) rest.emplace(name, value);
  record = std::move(rest);
  return record;
}

QSJobInfo decoded(const WireDictionary& record) {
  auto info = QSJobInfo::initWithCoder(record);
  if (!info) throw std::runtime_error("the record does not decode");
  return *info;
}

class DerivedInfo : public QSJobInfo {
 public:
  explicit DerivedInfo(const QSJobInfo& info) : QSJobInfo(info) {}
};

TEST(QSJobInfoTest, DecodesAllSevenKeys) {
  const QSJobInfo info = decoded(fullRecord());
  EXPECT_EQ(info.uuid(), "11111111-2222-4333-8444-555555555555");
  EXPECT_EQ(info.relativeFilePathAndName(), "Logs/install.log");
  EXPECT_EQ(info.jobSize(), 1234u);
  EXPECT_EQ(info.failureReason(), "Exited with Code:3");
  EXPECT_EQ(info.dateFinished(), QSDate{1700000000.25});
  EXPECT_EQ(info.jobStatus(), 2);
  EXPECT_TRUE(info.sensitive());
}

TEST(QSJobInfoTest, EncodesWhatItDecoded) {
  EXPECT_EQ(decoded(fullRecord()).encodeWithCoder(), fullRecord());
}

TEST(QSJobInfoTest, LeavesAbsentValuesOutButNeverStatusAndSensitivity) {
  const WireDictionary expected = {{"QSJobInfoJobStatus", WireValue(std::int64_t{0})},
                                   {"QSJobInfoSensitive", WireValue(false)}};
  EXPECT_EQ(decoded({}).encodeWithCoder(), expected);
}

TEST(QSJobInfoTest, DecodesAbsentKeysAsNoneZeroAndFalse) {
  const QSJobInfo info = decoded({});
  EXPECT_FALSE(info.uuid());
  EXPECT_FALSE(info.relativeFilePathAndName());
  EXPECT_FALSE(info.jobSize());
  EXPECT_FALSE(info.failureReason());
  EXPECT_FALSE(info.dateFinished());
  EXPECT_EQ(info.jobStatus(), 0);
  EXPECT_FALSE(info.sensitive());
}

TEST(QSJobInfoTest, IgnoresKeysThatAreNotOurs) {
  EXPECT_EQ(decoded(with("QSJobInfoColour", WireValue("blue"))).encodeWithCoder(), fullRecord());
}

TEST(QSJobInfoTest, FailsToDecodeAValueOfAnotherType) {
  const std::string text = "7";
  for (const auto& [key, value] : fullRecord()) {
    const bool isText = value.as<std::string>() != nullptr;
    const WireValue wrong = isText ? WireValue(std::int64_t{7}) : WireValue(text);
    EXPECT_FALSE(QSJobInfo::initWithCoder(with(key.c_str(), wrong))) << key;
  }
  // Neighbouring numeric types are not converted either.
  EXPECT_FALSE(QSJobInfo::initWithCoder(with("QSJobInfoSize", WireValue(std::int64_t{7}))));
  EXPECT_FALSE(QSJobInfo::initWithCoder(with("QSJobInfoSize", WireValue(7.0))));
  EXPECT_FALSE(QSJobInfo::initWithCoder(with("QSJobInfoJobStatus", WireValue(std::uint64_t{4}))));
  EXPECT_FALSE(QSJobInfo::initWithCoder(with("QSJobInfoSensitive", WireValue(std::int64_t{1}))));
  EXPECT_FALSE(QSJobInfo::initWithCoder(with("QSJobInfoDateFinished", WireValue(std::int64_t{7}))));
}

TEST(QSJobInfoTest, DescribesItselfInCarriageReturnSeparatedLines) {
  const QSJobInfo info = decoded(fullRecord());
  EXPECT_EQ(info.description(),
            "### QSJobInfo<11111111-2222-4333-8444-555555555555>: " +
                formatted("%p", static_cast<const void*>(&info)) +
                " ###\rOutputPath:Logs/install.log\rfailureReason:Exited with Code:3\rSize:1234\r"
                "DateFinished:2023-11-14 22:13:20 +0000\rStatus:2");
}

TEST(QSJobInfoTest, DescribesAbsentValuesWithThePlaceholder) {
  const QSJobInfo info = decoded({});
  EXPECT_EQ(info.description(),
            "### QSJobInfo<(null)>: " + formatted("%p", static_cast<const void*>(&info)) +
                " ###\rOutputPath:(null)\rfailureReason:(null)\rSize:(null)\r"
                "DateFinished:(null)\rStatus:0");
}

TEST(QSJobInfoTest, DescribesASizeOfZeroAndANegativeStatusAsUnsigned) {
  const QSJobInfo empty = decoded(with("QSJobInfoSize", WireValue(std::uint64_t{0})));
  EXPECT_NE(empty.description().find("\rSize:0\r"), std::string::npos);
  const QSJobInfo negative = decoded(with("QSJobInfoJobStatus", WireValue(std::int64_t{-1})));
  EXPECT_NE(negative.description().find("\rStatus:18446744073709551615"), std::string::npos);
}

TEST(QSJobInfoTest, NamesTheBaseClassAlsoForASubclass) {
  const DerivedInfo derived(decoded(fullRecord()));
  EXPECT_EQ(derived.description().rfind("### QSJobInfo<", 0), 0u);
}

TEST(QSJobInfoTest, IsEqualToARecordOfTheSameJobAtAnotherMoment) {
  const QSJobInfo before = decoded(with("QSJobInfoJobStatus", WireValue(std::int64_t{1})));
  const QSJobInfo after = decoded(with("QSJobInfoJobStatus", WireValue(std::int64_t{4})));
  EXPECT_TRUE(before.isEqual(after));
  EXPECT_FALSE(before.jobItemsEqual(after));
}

TEST(QSJobInfoTest, IsUnequalToARecordOfAnotherJob) {
  const QSJobInfo one = decoded(fullRecord());
  const QSJobInfo other = decoded(with("QSJobInfoUUID", WireValue("another")));
  EXPECT_FALSE(one.isEqual(other));
  EXPECT_FALSE(one.jobItemsEqual(other));
}

TEST(QSJobInfoTest, IsEqualOnlyToItselfWithoutAUUID) {
  const QSJobInfo none = decoded(without("QSJobInfoUUID"));
  const QSJobInfo alsoNone = none;
  const QSJobInfo some = decoded(fullRecord());
  EXPECT_TRUE(none.isEqual(none));
  EXPECT_TRUE(none.jobItemsEqual(none));
  EXPECT_FALSE(none.isEqual(alsoNone));
  EXPECT_FALSE(none.jobItemsEqual(alsoNone));
  EXPECT_FALSE(none.isEqual(some));
  EXPECT_FALSE(some.isEqual(none));
}

TEST(QSJobInfoTest, NeverEqualsAnInstanceOfASubclass) {
  const QSJobInfo plain = decoded(fullRecord());
  const DerivedInfo derived(plain);
  EXPECT_FALSE(plain.isEqual(derived));
  EXPECT_FALSE(plain.jobItemsEqual(derived));
  EXPECT_TRUE(derived.isEqual(derived));
  // Only the class of the other one counts.
  EXPECT_TRUE(derived.isEqual(plain));
}

TEST(QSJobInfoTest, ComparesEveryItem) {
  const QSJobInfo info = decoded(fullRecord());
  EXPECT_TRUE(info.jobItemsEqual(decoded(fullRecord())));
  const WireDictionary changes = {
      {"QSJobInfoRelativeFilePathAndName", WireValue("Logs/other.log")},
      {"QSJobInfoSize", WireValue(std::uint64_t{1})},
      {"QSJobInfoFailureReason", WireValue("Another reason")},
      {"QSJobInfoDateFinished", WireValue(1700000000.5)},
      {"QSJobInfoJobStatus", WireValue(std::int64_t{3})},
      {"QSJobInfoSensitive", WireValue(false)},
  };
  for (const auto& [key, value] : changes) {
    EXPECT_FALSE(info.jobItemsEqual(decoded(with(key.c_str(), value)))) << key;
  }
}

TEST(QSJobInfoTest, CountsSizeDateAndReasonAsEqualWhenEitherSideHasNone) {
  const QSJobInfo info = decoded(fullRecord());
  for (const char* key : {"QSJobInfoSize", "QSJobInfoDateFinished", "QSJobInfoFailureReason"}) {
    const QSJobInfo lacking = decoded(without(key));
    EXPECT_TRUE(info.jobItemsEqual(lacking)) << key;
    EXPECT_TRUE(lacking.jobItemsEqual(info)) << key;
  }
}

TEST(QSJobInfoTest, NeverEqualsWithoutAPath) {
  const QSJobInfo info = decoded(fullRecord());
  const QSJobInfo lacking = decoded(without("QSJobInfoRelativeFilePathAndName"));
  const QSJobInfo alsoLacking = lacking;
  EXPECT_FALSE(info.jobItemsEqual(lacking));
  EXPECT_FALSE(lacking.jobItemsEqual(info));
  EXPECT_FALSE(lacking.jobItemsEqual(alsoLacking));
}

}  // namespace
}  // namespace quillsift
