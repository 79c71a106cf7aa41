#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <thread>

#include "platform/linux/FileReading.h"
#include "platform/linux/JournalExport.h"
#include "tests/platform/linux/JournalMaker.h"
#include "tests/platform/linux/ScratchTree.h"

namespace quillsift {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr LogKindLimits kUsual{.size = 10485760, .age = 36000};
using Limits = std::map<std::string, LogKindLimits>;

class JournalExportTest : public testing::Test {
 protected:
  JournalExportTest() { scratch_.makeDirectory("log"); }

  std::string file(const std::string& name = "system.journal") const {
    return scratch_.at("log/" + name);
  }
  // Reads log/ and what lies below it.
  int read(const Limits& limits = {{"persist", kUsual},
                                   {"special", kUsual},
                                   {"signpost", kUsual},
                                   {"highvolume", kUsual}},
           const JournalExport::Now& now = JournalExport::Now::ofThisMachine()) {
    return read({scratch_.at("log")}, limits, now);
  }
  int read(const std::vector<std::string>& directories, const Limits& limits,
           const JournalExport::Now& now) {
    texts_.clear();
    warnings_.clear();
    kinds_.clear();
    JournalExport journal(limits, now);
    const int result =
        journal.read(directories, [this](const std::string& text) { warnings_.push_back(text); });
    journal.visitTexts([this](const char* kind, std::string_view text) {
      kinds_.emplace_back(kind);
      texts_[kind] = text;
    });
    return result;
  }
  // The messages of a kind, in order.
  std::vector<std::string> messages(const std::string& kind) const {
    std::vector<std::string> found;
    const auto text = texts_.find(kind);
    if (text == texts_.end()) return found;
    constexpr std::string_view kMark = "\nMESSAGE=";
    for (std::size_t at = 0; (at = text->second.find(kMark, at)) != std::string::npos;) {
      at += kMark.size();
      found.push_back(text->second.substr(at, text->second.find('\n', at) - at));
    }
    return found;
  }

  const ScratchTree scratch_;
  std::map<std::string, std::string> texts_;
  std::vector<std::string> kinds_, warnings_;
};

// --- Kinds and limits ---

TEST_F(JournalExportTest, SortsEntriesByTheWayTheyCame) {
  makeJournal(file(),
              {message("a", "journal", 9), message("b", "stdout", 8), message("c", "syslog", 7),
               message("d", "kernel", 6), message("e", "audit", 5), message("f", "driver", 4)});
  EXPECT_EQ(read(), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("a", "b"));
  EXPECT_THAT(messages("highvolume"), ElementsAre("c", "d"));
  EXPECT_THAT(messages("signpost"), ElementsAre("e"));
  EXPECT_THAT(messages("special"), IsEmpty());
  EXPECT_THAT(kinds_, ElementsAre("persist", "signpost", "highvolume"));
  EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(JournalExportTest, TakesUrgentEntriesOfEveryTransportForSpecial) {
  std::vector<MadeEntry> entries;
  for (const char* priority : {"0", "1", "2", "3", "4", "7", "", "x", "33", "-1"})
    entries.push_back(message(priority, "kernel", 5, {{"PRIORITY", priority}}));
  entries.push_back(message("e", "journal", 4, {{"PRIORITY", "3"}}));
  entries.push_back(message("f", "driver", 4, {{"PRIORITY", "2"}}));
  makeJournal(file(), entries);
  EXPECT_EQ(read(), 0);
  EXPECT_THAT(messages("special"), ElementsAre("0", "1", "2", "3", "e", "f"));
  EXPECT_THAT(messages("persist"), ElementsAre("e"));
  EXPECT_EQ(messages("highvolume").size(), 10U);
}

TEST_F(JournalExportTest, LeavesOutKindsThatNobodyAskedFor) {
  makeJournal(file(), {message("a", "journal", 9), message("b", "kernel", 8)});
  EXPECT_EQ(read({{"highvolume", kUsual}, {"unheard of", kUsual}}), 0);
  EXPECT_THAT(kinds_, ElementsAre("highvolume"));
}

TEST_F(JournalExportTest, KeepsTheNewestThatFit) {
  makeJournal(file(), {message("one", "journal", 9), message("two", "kernel", 8),
                       message("three", "journal", 7), message("four", "journal", 6)});
  ASSERT_EQ(read(), 0);
  const auto whole = static_cast<std::int64_t>(texts_["persist"].size());
  EXPECT_EQ(read({{"persist", {.size = whole, .age = 36000}}}), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("one", "three", "four"));
  EXPECT_EQ(read({{"persist", {.size = whole - 1, .age = 36000}}, {"highvolume", kUsual}}), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("three", "four"));
  EXPECT_THAT(messages("highvolume"), ElementsAre("two"));
  EXPECT_EQ(read({{"persist", {.size = 0, .age = 36000}}}), 0);
  EXPECT_THAT(kinds_, IsEmpty());
  EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(JournalExportTest, KeepsWhatIsNotTooOld) {
  makeJournal(file(), {message("too old", "journal", 36100), message("old", "journal", 35900),
                       message("old kernel", "kernel", 300), message("new", "journal", 1)});
  EXPECT_EQ(read({{"persist", kUsual}, {"highvolume", {.size = 10485760, .age = 200}}}), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("old", "new"));
  EXPECT_THAT(messages("highvolume"), IsEmpty());
  EXPECT_EQ(read({{"persist", {.size = 10485760, .age = -1}}}), 0);
  EXPECT_THAT(kinds_, IsEmpty());
}

TEST_F(JournalExportTest, TakesEntriesOfTheFutureForYoungOnes) {
  MadeEntry entry = message("tomorrow", "journal", 0);
  entry.realTime += std::uint64_t{86400} * 1'000'000;
  makeJournal(file(), {entry});
  EXPECT_EQ(read(), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("tomorrow"));
}

// A machine whose clock was set only after it had started.
TEST_F(JournalExportTest, MeasuresTheAgeOfThisBootsEntriesByTheClockThatNeverJumps) {
  std::vector<MadeEntry> entries = {message("before the clock was set", "journal", 0),
                                    message("after", "journal", 0)};
  entries[0].realTime = 5'000'000;
  entries[0].sinceBoot = 40'000'000'000;
  entries[1].sinceBoot = 50'000'000'000;
  makeJournal(file(), entries);
  JournalExport::Now now{.realTime = realTimeNow() * 1'000'000, .sinceBoot = 60'000'000'000};
  EXPECT_EQ(read({{"persist", kUsual}}, now), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("after"));
  now.boot = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0b, 0x01};
  EXPECT_EQ(read({{"persist", kUsual}}, now), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("before the clock was set", "after"));
  EXPECT_EQ(read({{"persist", {.size = 10485760, .age = 15'000}}}, now), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("after"));
}

TEST_F(JournalExportTest, KnowsTheTimeAndBootOfThisMachine) {
  const JournalExport::Now now = JournalExport::Now::ofThisMachine();
  EXPECT_NEAR(static_cast<double>(now.realTime) / 1e6, static_cast<double>(::time(nullptr)), 60);
  EXPECT_GT(now.sinceBoot, 0U);
  std::string boot;
  for (const std::uint8_t byte : now.boot) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    boot += digits;
  }
  std::string expected(readSmallFile("/proc/sys/kernel/random/boot_id")->text());
  std::erase(expected, '-');
  EXPECT_EQ(boot + "\n", expected);
}

TEST_F(JournalExportTest, PassesOverAnEntryThatCouldNeverFit) {
  makeJournal(file(), {message("old", "journal", 9),
                       message(std::string(20'000, 'x'), "journal", 8, {{"PRIORITY", "1"}}),
                       message("new", "journal", 7)});
  EXPECT_EQ(read({{"persist", {.size = 10'000, .age = 36000}}, {"special", kUsual}}), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("old", "new"));
  EXPECT_EQ(messages("special").size(), 1U);
  EXPECT_THAT(warnings_, ElementsAre("1 journal entries of the kind persist are longer than 10000 "
                                     "bytes and left out"));
}

// --- The text ---

TEST_F(JournalExportTest, IsWhatJournalctlExports) {
  std::vector<MadeEntry> entries;
  for (int i = 0; i < 300; ++i)
    entries.push_back(message("message " + std::to_string(i), i % 3 == 0 ? "kernel" : "journal",
                              100, {{"PRIORITY", std::to_string(i % 8)}, {"_PID", "12"}}));
  entries.push_back(message("two\nlines", "stdout", 9, {{"EMPTY", ""}, {"EQUALS", "a=b"}}));
  std::string bytes;
  for (int c = 0; c < 256; ++c)
    bytes += static_cast<char>(c);
  entries.push_back(message(bytes, "journal", 8, {{"BROKEN", "\xC3("}, {"TAB", "a\tb"}}));
  // Long enough to be compressed in the file, and one that does not compress.
  std::string noise;
  std::uint32_t state = 1;
  for (int i = 0; i < 100'000; ++i)
    noise += static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
  entries.push_back(message(std::string(1'000'000, 'x'), "journal", 7, {{"NOISE", noise}}));
  entries.push_back(message("gr\xC3\xBC\xC3\x9F", "journal", 6, {{"TWICE", "1"}, {"TWICE", "2"}}));
  makeJournal(file(), entries);
  EXPECT_EQ(read(), 0);
  const std::string all = "-D " + scratch_.at("log") + " -o export ";
  // Compared by hand: nobody wants to see a megabyte.
  const auto equals = [&](const char* kind, const std::string& matches) {
    return texts_[kind] == journalctl(all + matches);
  };
  EXPECT_TRUE(equals("persist", "_TRANSPORT=journal _TRANSPORT=stdout"));
  EXPECT_TRUE(equals("highvolume", "_TRANSPORT=kernel"));
  EXPECT_TRUE(equals("special", "PRIORITY=0 PRIORITY=1 PRIORITY=2 PRIORITY=3"));
  EXPECT_GT(texts_["persist"].size(), 1'100'000U);
}

TEST_F(JournalExportTest, CanBeImportedAgain) {
  std::vector<MadeEntry> entries;
  for (int i = 0; i < 100; ++i)
    entries.push_back(message("message\n" + std::to_string(i), "journal", 100));
  makeJournal(file(), entries);
  EXPECT_EQ(read(), 0);
  scratch_.makeDirectory("again");
  makeJournalOfText(scratch_.at("again/x.journal"), texts_["persist"]);
  // All but the cursors, which belong to the files; the order of fields is the importer's own.
  const auto fields = [this](const std::string& directory) {
    return journalctl("-D " + scratch_.at(directory) + " -o export | grep -av ^__CURSOR= | sort");
  };
  EXPECT_THAT(fields("again"), HasSubstr("_TRANSPORT=journal"));
  EXPECT_TRUE(fields("again") == fields("log"));
}

// --- Which files ---

TEST_F(JournalExportTest, JoinsTheFilesOfAllDirectoriesAndMachines) {
  scratch_.makeDirectory("log/000000000000000000000000000000aa");
  scratch_.makeDirectory("log/000000000000000000000000000000bb");
  scratch_.makeDirectory("run");
  const auto of = [](const std::string& text, std::uint64_t age, const std::string& machine) {
    MadeEntry entry = message(text, "journal", age);
    entry.machine = machine;
    entry.boot = machine;
    return entry;
  };
  const std::string a(32, 'a'), b(32, 'b');
  // All of one moment: to make a file takes some seconds on a busy machine.
  const std::vector<MadeEntry> first = {of("1", 90, a), of("4", 60, a)},
                               second = {of("2", 80, b), of("5", 50, b)}, third = {of("3", 70, a)};
  makeJournal(file("000000000000000000000000000000aa/system.journal"), first);
  makeJournal(file("000000000000000000000000000000bb/system.journal"), second);
  makeJournal(scratch_.at("run/x.journal"), third);
  EXPECT_EQ(read({scratch_.at("run"), scratch_.at("log"), scratch_.at("nowhere")},
                 {{"persist", kUsual}}, JournalExport::Now::ofThisMachine()),
            0);
  EXPECT_THAT(messages("persist"), ElementsAre("1", "2", "3", "4", "5"));
  EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(JournalExportTest, FailsWithoutAnyJournalFile) {
  EXPECT_EQ(read(), ENOENT);
  EXPECT_EQ(read({scratch_.at("nowhere")}, {{"persist", kUsual}}, {}), ENOENT);
  scratch_.write("log/readme.txt", "text");
  EXPECT_EQ(read(), ENOENT);
  EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(JournalExportTest, SucceedsWithAJournalThatHasNothingToSay) {
  makeJournal(file(), {message("old", "journal", 100'000)});
  EXPECT_EQ(read(), 0);
  EXPECT_THAT(kinds_, IsEmpty());
  EXPECT_THAT(warnings_, IsEmpty());
}

TEST_F(JournalExportTest, ReadsAJournalThatIsStillWrittenTo) {
  makeJournal(file(), {message("a", "journal", 9)});
  overwrite(file(), 16, "\x01");  // the state of one that is open for writing
  EXPECT_EQ(read(), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("a"));
  EXPECT_THAT(warnings_, IsEmpty());
}

// --- Damage ---

TEST_F(JournalExportTest, WarnsOfAFileThatWasCutAndReadsTheOthers) {
  makeJournal(file("cut.journal"), {message("lost", "journal", 9)});
  makeJournal(file("good.journal"), {message("kept", "journal", 8)});
  std::filesystem::resize_file(file("cut.journal"), 100'000);
  EXPECT_EQ(read(), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("kept"));
  EXPECT_THAT(warnings_,
              ElementsAre(file("cut.journal") + " cannot be read as a journal: No data available"));
}

TEST_F(JournalExportTest, WarnsOfFilesThatAreNoJournals) {
  scratch_.write("log/empty.journal", "");
  scratch_.write("log/short.journal~", "LPKSHHRH");
  scratch_.write("log/text.journal", std::string(100'000, 'x'));
  scratch_.link("log/gone.journal", "nowhere");
  makeJournal(file("good.journal"), {message("kept", "journal", 8)});
  EXPECT_EQ(read(), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("kept"));
  EXPECT_THAT(warnings_,
              ElementsAre(file("gone.journal") + " cannot be read: No such file or directory",
                          file("empty.journal") + " cannot be read as a journal: No data available",
                          StartsWith(file("short.journal~") + " cannot be read as a journal: "),
                          file("text.journal") + " cannot be read as a journal: Bad message"));
}

TEST_F(JournalExportTest, FailsWithTheFirstReasonWhenNoFileCanBeRead) {
  scratch_.write("log/a.journal", std::string(100'000, 'x'));
  scratch_.write("log/b.journal", "");
  EXPECT_EQ(read(), EBADMSG);
  EXPECT_EQ(warnings_.size(), 2U);
}

TEST_F(JournalExportTest, WarnsOfALostPageAndReadsWhatIsLeft) {
  std::vector<MadeEntry> entries;
  for (int i = 0; i < 2000; ++i)
    entries.push_back(message("entry " + std::to_string(i), "journal", 100));
  makeJournal(file(), entries);
  const std::uint64_t page = numberIn(file(), 136) / 4096 * 4096 - 20 * 4096;
  overwrite(file(), page, std::string(4096, '\0'));
  EXPECT_EQ(read(), 0);
  EXPECT_GT(messages("persist").size(), 1900U);
  EXPECT_LT(messages("persist").size(), 2000U);
  EXPECT_EQ(messages("persist").front(), "entry 0");
  EXPECT_EQ(messages("persist").back(), "entry 1999");
  ASSERT_EQ(warnings_.size(), 2U);
  EXPECT_THAT(warnings_[0], StartsWith(file() + " is damaged at byte "));
  EXPECT_THAT(warnings_[1], EndsWith(" of 2000 journal entries were not found"));
}

TEST_F(JournalExportTest, CountsEntriesThatCannotBeFound) {
  makeJournal(file(), {message("a", "journal", 9), message("b", "journal", 8),
                       message("c", "journal", 7), message("d", "journal", 6)});
  // The second item of the list of all entries, behind its header and the link to the next list.
  const std::uint64_t list = numberIn(file(), 176);
  overwrite(file(), list + 16 + 8 + 8, std::string("\x08\0\0\0\0\0\0\0", 8));
  EXPECT_EQ(read(), 0);
  const std::size_t found = messages("persist").size();
  EXPECT_LT(found, 4U);
  EXPECT_THAT(warnings_,
              ElementsAre(std::to_string(4 - found) + " of 4 journal entries were not found"));
}

TEST_F(JournalExportTest, DoesNotMissEntriesThatNobodyWants) {
  makeJournal(file(), {message("a", "journal", 40'000), message("b", "journal", 39'000),
                       message("c", "journal", 7)});
  EXPECT_EQ(read(), 0);
  EXPECT_THAT(messages("persist"), ElementsAre("c"));
  EXPECT_THAT(warnings_, IsEmpty());
}

// Whatever the bytes: an end.
TEST_F(JournalExportTest, StandsDamageAnywhere) {
  std::vector<MadeEntry> entries;
  for (int i = 0; i < 200; ++i)
    entries.push_back(message("entry " + std::to_string(i), "journal", 100));
  makeJournal(file(), entries);
  const std::string sound(readSmallFile(file())->text());
  const std::uint64_t used = numberIn(file(), 136);
  std::uint64_t state = 1;
  const auto random = [&](std::uint64_t below) {
    state = state * 6364136223846793005 + 1442695040888963407;
    return (state >> 33) % below;
  };
  for (int round = 0; round < 60; ++round) {
    std::string damaged = sound;
    for (std::uint64_t i = 0; i <= random(10); ++i) {
      const std::uint64_t place = random(used) & ~std::uint64_t{7};
      const std::uint64_t value = random(2) == 0 ? random(used) & ~std::uint64_t{7} : random(256);
      damaged[place] = static_cast<char>(value);
      if (random(2) == 0) {
        for (std::uint64_t byte = 0; byte < 8; ++byte)
          damaged[place + byte] = static_cast<char>(value >> (8 * byte));
      }
    }
    scratch_.write("log/system.journal", damaged);
    (void)read();
    EXPECT_LE(messages("persist").size(), 200U + 10'000U) << round;
  }
}

// --- Looking while it reads ---

TEST_F(JournalExportTest, ShowsWhatItHasWhileItReads) {
  std::vector<MadeEntry> entries;
  for (int i = 0; i < 5000; ++i)
    entries.push_back(message("entry " + std::to_string(i), "journal", 100));
  makeJournal(file(), entries);
  JournalExport journal({{"persist", kUsual}}, JournalExport::Now::ofThisMachine());
  std::atomic<bool> done = false;
  std::thread reader([&] {
    EXPECT_EQ(journal.read({scratch_.at("log")}, [](const std::string&) {}), 0);
    done = true;
  });
  while (!done) {
    journal.visitTexts([](const char*, std::string_view text) {
      EXPECT_THAT(std::string(text.substr(0, 9)), "__CURSOR=");
      EXPECT_TRUE(text.ends_with("\n\n"));
    });
    std::this_thread::yield();  // the reader's turn
  }
  reader.join();
}

}  // namespace
}  // namespace quillsift
