#include <gtest/gtest.h>
#include <time.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "host/QSUtilities.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {
namespace {

using std::nullopt;

constexpr QSDate kAutumn{1794782516};  // 2026-11-15 22:41:56 UTC
constexpr QSDate kSummer{1782907200};  // 2026-07-01 12:00:00 UTC

class QSUtilitiesTest : public testing::Test {
 protected:
  QSUtilitiesTest() { setTimeZone("GMT0"); }
  ~QSUtilitiesTest() override {
    ::unsetenv("TZ");
    ::tzset();
  }

  static void setTimeZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
  }

  // The host's answer is text with its terminator.
  void setModel(const std::string& model) {
    platform_.hostInformation().setControl("hw.model", model + '\0');
  }
  void setBuild(const std::string& build) {
    platform_.hostInformation().setSystemVersion({{{kBuildVersionKey, build}}});
  }
  static std::string name(QSDate date = kAutumn) {
    return QSUtilities::ArchiveNameGivenDate(date, false);
  }
  // The first field of the name.
  static std::string dateField(QSDate date, const char* zone) {
    setTimeZone(zone);
    const std::string whole = name(date);
    const std::string before = "quillsift_", behind = "_Lumina_.tgz";
    EXPECT_TRUE(whole.starts_with(before) && whole.ends_with(behind)) << whole;
    return whole.substr(before.size(), whole.size() - before.size() - behind.size());
  }
  static std::string zoneField(QSDate date, const char* zone) {
    return dateField(date, zone).substr(std::string("2026-11-15_22-41-56-").size());
  }

  void setVariable(RegistryValue value) {
    platform_.deviceRegistry().setFirmwareVariable("variable", std::move(value));
  }
  static std::optional<std::string> variable() {
    return QSUtilities::NVRAMStringForKey("variable");
  }

  TestPlatform platform_;
};

TEST_F(QSUtilitiesTest, ReturnsAFirmwareVariableOfTextAsItIs) {
  setVariable(std::string("caf\xC3\xA9\0x", 7));
  EXPECT_EQ(variable(), std::string("caf\xC3\xA9\0x", 7));
  setVariable(std::string());
  EXPECT_EQ(variable(), "");
}

TEST_F(QSUtilitiesTest, DecodesAFirmwareVariableOfBytesWhole) {
  setVariable(QSData(std::string("1")));
  EXPECT_EQ(variable(), "1");
  setVariable(QSData(std::string("a\0b\0\x7F", 5)));
  EXPECT_EQ(variable(), std::string("a\0b\0\x7F", 5));
  setVariable(QSData());
  EXPECT_EQ(variable(), "");
}

TEST_F(QSUtilitiesTest, CannotDecodeBytesThatAreNotASCII) {
  setVariable(QSData(std::string("abc\x80")));
  EXPECT_EQ(variable(), nullopt);
  setVariable(QSData(std::string("caf\xC3\xA9")));
  EXPECT_EQ(variable(), nullopt);
}

TEST_F(QSUtilitiesTest, TakesNoFirmwareVariableOfAnotherType) {
  setVariable(std::int64_t{1});
  EXPECT_EQ(variable(), nullopt);
}

TEST_F(QSUtilitiesTest, HasNoFirmwareVariableThatIsNotThere) {
  EXPECT_EQ(variable(), nullopt) << "no store at all";
  setVariable(std::string("x"));
  EXPECT_EQ(QSUtilities::NVRAMStringForKey("other"), nullopt);
}

TEST_F(QSUtilitiesTest, NamesAnArchiveAfterDateModelAndBuild) {
  setModel("Lumina14,2");
  setBuild("25A123");
  EXPECT_EQ(QSUtilities::ArchiveNameGivenDate(kAutumn, false),
            "quillsift_2026-11-15_22-41-56-GMT_Lumina14-2_25A123.tgz");
  EXPECT_EQ(QSUtilities::ArchiveNameGivenDate(kAutumn, true),
            "quillsift_2026-11-15_22-41-56-GMT_Lumina14-2_25A123_limited.tgz");
}

TEST_F(QSUtilitiesTest, ReplacesEachCommaOfTheModelAndNothingElse) {
  setModel(",a,,b/c d%s,");
  setBuild("x");
  EXPECT_EQ(name(), "quillsift_2026-11-15_22-41-56-GMT_-a--b/c d%s-_x.tgz");
}

TEST_F(QSUtilitiesTest, ReadsTheModelUpToItsTerminator) {
  setBuild("x");
  setModel("M1");
  EXPECT_EQ(name(), "quillsift_2026-11-15_22-41-56-GMT_M1_x.tgz");
  setModel("");
  EXPECT_EQ(name(), "quillsift_2026-11-15_22-41-56-GMT__x.tgz");
  setModel(std::string(31, 'm'));
  EXPECT_EQ(name(), "quillsift_2026-11-15_22-41-56-GMT_" + std::string(31, 'm') + "_x.tgz");
}

TEST_F(QSUtilitiesTest, ReadsAtMostTheBufferOfAModelWithoutTerminator) {
  setBuild("x");
  platform_.hostInformation().setControl("hw.model", std::string(32, 'm'));
  EXPECT_EQ(name(), "quillsift_2026-11-15_22-41-56-GMT_" + std::string(32, 'm') + "_x.tgz");
}

TEST_F(QSUtilitiesTest, CallsTheModelLuminaWhereTheHostDoesNotTell) {
  setBuild("x");
  EXPECT_EQ(name(), "quillsift_2026-11-15_22-41-56-GMT_Lumina_x.tgz");
  setModel(std::string(32, 'm'));  // does not fit with its terminator
  EXPECT_EQ(name(), "quillsift_2026-11-15_22-41-56-GMT_Lumina_x.tgz");
  setModel("M1");
  platform_.hostInformation().failControl("hw.model", EIO);
  EXPECT_EQ(name(), "quillsift_2026-11-15_22-41-56-GMT_Lumina_x.tgz");
}

TEST_F(QSUtilitiesTest, PrintsAModelThatIsNotASCIIAsAbsent) {
  setBuild("x");
  setModel("caf\xC3\xA9");
  EXPECT_EQ(name(), "quillsift_2026-11-15_22-41-56-GMT_(null)_x.tgz");
}

TEST_F(QSUtilitiesTest, LeavesTheBuildEmptyWithoutASystemVersion) {
  platform_.hostInformation().setSystemVersion(nullopt);
  EXPECT_EQ(name(), "quillsift_2026-11-15_22-41-56-GMT_Lumina_.tgz");
  EXPECT_EQ(QSUtilities::ArchiveNameGivenDate(kAutumn, true),
            "quillsift_2026-11-15_22-41-56-GMT_Lumina__limited.tgz");
}

TEST_F(QSUtilitiesTest, PrintsABuildThatTheSystemVersionDoesNotNameAsAbsent) {
  platform_.hostInformation().setSystemVersion({{{"ProductName", "x"}}});
  EXPECT_EQ(name(), "quillsift_2026-11-15_22-41-56-GMT_Lumina_(null).tgz");
}

TEST_F(QSUtilitiesTest, PutsTheDateIntoTheProcessesTimeZone) {
  EXPECT_EQ(dateField(kAutumn, "PST8PDT,M3.2.0,M11.1.0"), "2026-11-15_14-41-56-PST");
  EXPECT_EQ(dateField(kSummer, "PST8PDT,M3.2.0,M11.1.0"), "2026-07-01_05-00-00-PDT");
  EXPECT_EQ(dateField(kAutumn, "<+14>-14"), "2026-11-16_12-41-56-GMT+14");
}

TEST_F(QSUtilitiesTest, NamesAZoneByItsLettersOrItsDistanceFromGreenwich) {
  EXPECT_EQ(zoneField(kAutumn, "UTC0"), "UTC");
  EXPECT_EQ(zoneField(kAutumn, ""), "UTC");
  EXPECT_EQ(zoneField(kAutumn, "<+00>0"), "GMT");
  EXPECT_EQ(zoneField(kAutumn, "<+03>-3"), "GMT+3");
  EXPECT_EQ(zoneField(kAutumn, "<-03>3"), "GMT-3");
  EXPECT_EQ(zoneField(kAutumn, "<-0530>5:30"), "GMT-5:30");
  EXPECT_EQ(zoneField(kAutumn, "<+0545>-5:45"), "GMT+5:45");
  EXPECT_EQ(zoneField(kAutumn, "<-0005>0:05"), "GMT-0:05");
  EXPECT_EQ(zoneField(kAutumn, "<AB-1>1"), "GMT-1");
}

TEST_F(QSUtilitiesTest, FollowsAChangeOfTheTimeZone) {
  EXPECT_EQ(zoneField(kAutumn, "GMT0"), "GMT");
  ::setenv("TZ", "<+03>-3", 1);  // without telling the C library
  EXPECT_EQ(name(), "quillsift_2026-11-16_01-41-56-GMT+3_Lumina_.tgz");
}

TEST_F(QSUtilitiesTest, CutsADateToItsSecond) {
  EXPECT_EQ(dateField({kAutumn.secondsSince1970 + 0.999}, "GMT0"), "2026-11-15_22-41-56-GMT");
  EXPECT_EQ(dateField({-0.25}, "GMT0"), "1969-12-31_23-59-59-GMT");
}

TEST_F(QSUtilitiesTest, PrintsADateThatNoCalendarReachesAsAbsent) {
  for (const double seconds : {1e300, -1e300, std::numeric_limits<double>::infinity(),
                               std::numeric_limits<double>::quiet_NaN(), 1e12}) {
    EXPECT_EQ(dateField({seconds}, "GMT0"), "(null)") << seconds;
  }
}

TEST_F(QSUtilitiesTest, AsksEveryTimeWhetherTheProcessIsTranslated) {
  EXPECT_FALSE(QSUtilities::isVantorSilicon());
  platform_.hostInformation().setTranslated(true);
  EXPECT_TRUE(QSUtilities::isVantorSilicon());
  platform_.hostInformation().setTranslated(false);
  EXPECT_FALSE(QSUtilities::isVantorSilicon());
}

// What is asked once per process is asked in a child process, so that each test is the first.
class QSUtilitiesOncePerProcessTest : public QSUtilitiesTest {
 protected:
  template <typename Body>
  static void expectInChild(const Body& body) {
    EXPECT_EXIT(std::_Exit(body() ? 0 : 1), testing::ExitedWithCode(0), "");
  }

  void expectDiagnosticUI(bool enabled, std::optional<RegistryValue> value) {
    expectInChild([&] {
      if (value) platform_.deviceRegistry().setFirmwareVariable("__QS_DIAGNOSTIC_UI", *value);
      return QSUtilities::DiagnosticUIEnabled() == enabled;
    });
  }
  void expectDiagnosticUIForText(bool enabled, const std::string& text) {
    SCOPED_TRACE("\"" + text + "\"");
    expectDiagnosticUI(enabled, text);
  }
};

TEST_F(QSUtilitiesOncePerProcessTest, EnablesTheDiagnosticUIForATrueVariable) {
  for (const char* text : {"yes", "YES", "true", "T", "y", "2", "1", "9", " \t\n\v\f\r1", "+1",
                           "-3", "0007", "-000Yes", "1x"}) {
    expectDiagnosticUIForText(true, text);
  }
}

TEST_F(QSUtilitiesOncePerProcessTest, DisablesTheDiagnosticUIForAnythingElse) {
  for (const char* text :
       {"no", "0", "", "000", "  ", "+", "-", "+-1", "- 1", "0 1", "x1", "n", "on", "00.5"}) {
    expectDiagnosticUIForText(false, text);
  }
}

TEST_F(QSUtilitiesOncePerProcessTest, ReadsTheDiagnosticUIVariableAsAnyOther) {
  expectDiagnosticUI(true, QSData(std::string("1")));
  expectDiagnosticUI(false, QSData(std::string("1\xFF")));
  expectDiagnosticUI(false, std::int64_t{1});
  expectDiagnosticUI(false, nullopt);
}

TEST_F(QSUtilitiesOncePerProcessTest, NeverAsksForTheDiagnosticUIAgain) {
  for (const bool first : {true, false}) {
    expectInChild([&] {
      auto& registry = platform_.deviceRegistry();
      registry.setFirmwareVariable("__QS_DIAGNOSTIC_UI", std::string(first ? "yes" : "no"));
      if (QSUtilities::DiagnosticUIEnabled() != first) return false;
      registry.setFirmwareVariable("__QS_DIAGNOSTIC_UI", std::string(first ? "no" : "yes"));
      return QSUtilities::DiagnosticUIEnabled() == first;
    });
  }
}

TEST_F(QSUtilitiesOncePerProcessTest, AsksForInternalContentOfItsOwnSubsystem) {
  expectInChild([&] {
    platform_.hostInformation().setInternalContent("io.vantor.Quillsift", true);
    return QSUtilities::isVantorInternal();
  });
  expectInChild([&] {
    platform_.hostInformation().setInternalContent("io.vantor.quillsift", true);
    return !QSUtilities::isVantorInternal();
  });
}

TEST_F(QSUtilitiesOncePerProcessTest, NeverAsksForInternalContentAgain) {
  expectInChild([&] {
    auto& host = platform_.hostInformation();
    if (QSUtilities::isVantorInternal()) return false;
    host.setInternalContent("io.vantor.Quillsift", true);
    return !QSUtilities::isVantorInternal() && host.askedSubsystems().size() == 1;
  });
}

}  // namespace
}  // namespace quillsift
