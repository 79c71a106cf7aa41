#include "platform/linux/JournalExport.h"

#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <limits>
#include <utility>

#include "platform/Text.h"
#include "platform/linux/FileReading.h"
#include "platform/linux/JournalFileCheck.h"

namespace quillsift {

namespace {

constexpr std::uint64_t kMicroseconds = 1'000'000;  // in a second
constexpr int kLeastUrgentOfSpecial = 3;            // errors
// Looking for damage reads a file as a whole: beyond this, in all, it takes too long.
constexpr std::int64_t kMostCheckedBytes = std::int64_t{512} * 1024 * 1024;

constexpr std::uint64_t kMostEntries = std::uint64_t{1} << 60;  // far from overflow
// Steps beyond the number of entries that the files should hold.
constexpr std::uint64_t kTolerableSteps = 10'000;

struct KindRule {
  const char* name;
  bool (*holds)(const JournalEntry& entry);
};

constexpr KindRule kRules[] = {
    {"persist",
     [](const JournalEntry& entry) {
       return entry.transport == "journal" || entry.transport == "stdout";
     }},
    {"special",
     [](const JournalEntry& entry) {
       return entry.priority && *entry.priority <= kLeastUrgentOfSpecial;
     }},
    {"signpost", [](const JournalEntry& entry) { return entry.transport == "audit"; }},
    {"highvolume",
     [](const JournalEntry& entry) {
       return entry.transport == "syslog" || entry.transport == "kernel";
     }},
};

std::uint64_t asMicroseconds(std::int64_t seconds) {
  constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max() / kMicroseconds;
  return std::min(static_cast<std::uint64_t>(std::max<std::int64_t>(seconds, 0)), kMost) *
         kMicroseconds;
}

std::uint64_t nowOn(clockid_t clock) {
  timespec time{};
  (void)::clock_gettime(clock, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * kMicroseconds +
         static_cast<std::uint64_t>(time.tv_nsec) / 1000;
}

// 32 hexadecimal digits, with hyphens or without. All zero for anything else.
std::array<std::uint8_t, 16> identifierIn(std::string_view text) {
  std::array<std::uint8_t, 16> identifier = {};
  std::size_t digits = 0;
  for (const char c : text) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    const std::size_t value = kDigits.find(c);
    if (value == std::string_view::npos || digits == 2 * identifier.size()) continue;
    identifier[digits / 2] =
        static_cast<std::uint8_t>(std::size_t{identifier[digits / 2]} << 4 | value);
    ++digits;
  }
  return identifier;
}

std::int64_t sizeOf(const JournalFile& file) {
  struct stat status {};
  return ::fstat(file.descriptor.get(), &status) == 0 ? status.st_size : 0;
}

// Warns of damage and returns how many entries the files should hold.
std::uint64_t inspect(const std::vector<JournalFile>& files,
                      const JournalExport::Warning& warning) {
  std::uint64_t entries = 0;
  std::int64_t left = kMostCheckedBytes;
  for (const JournalFile& file : files) {
    left -= sizeOf(file);
    const JournalFileFacts facts = inspectJournalFile(file.descriptor.get(), left >= 0);
    entries += std::min(facts.entries, kMostEntries - entries);
    if (facts.firstDamage) {
      warning(formatted("%s is damaged at byte %" PRIu64 "; entries of it may be missing",
                        file.path.c_str(), *facts.firstDamage));
    }
  }
  return entries;
}

}  // namespace

JournalExport::Now JournalExport::Now::ofThisMachine() {
  Now now{.realTime = nowOn(CLOCK_REALTIME), .sinceBoot = nowOn(CLOCK_MONOTONIC)};
  if (const auto boot = readSmallFile("/proc/sys/kernel/random/boot_id")) {
    now.boot = identifierIn(boot->text());
  }
  return now;
}

JournalExport::JournalExport(const std::map<std::string, LogKindLimits>& limits, const Now& now)
    : now_(now) {
  const MutexLock lock(mutex_);
  for (const KindRule& rule : kRules) {
    const auto limit = limits.find(rule.name);
    if (limit == limits.end()) continue;
    kinds_.push_back({rule.name, rule.holds, asMicroseconds(limit->second.age),
                      NewestEntries(limit->second.size)});
  }
}

int JournalExport::read(const std::vector<std::string>& directories, const Warning& warning) {
  int firstFailure = 0;
  std::vector<JournalFile> files =
      openJournalFiles(directories, [&](const std::string& path, int code) {
        if (firstFailure == 0) firstFailure = code;
        warning(path + " cannot be read: " + systemErrorText(code));
      });
  std::erase_if(files, [&](const JournalFile& file) {
    const int code = JournalReader::whyUnreadable(file);
    if (code == 0) return false;
    if (firstFailure == 0) firstFailure = code;
    warning(file.path + " cannot be read as a journal: " + systemErrorText(code));
    return true;
  });
  if (files.empty()) return firstFailure == 0 ? ENOENT : firstFailure;

  const std::uint64_t expected = inspect(files, warning);
  int code = 0;
  const auto journal = JournalReader::open(files, highestLimit(), &code);
  if (!journal) return code;
  readEntries(*journal, expected, warning);
  warnOfLongEntries(warning);
  return 0;
}

void JournalExport::readEntries(JournalReader& journal, std::uint64_t expected,
                                const Warning& warning) {
  JournalEntry entry;
  // Damage can lead back to entries that have been seen; a journal in use gets some new ones.
  const std::uint64_t mostSteps = expected + kTolerableSteps;
  std::uint64_t count = 0, steps = 0;
  int result = 0;
  while ((result = journal.previous()) > 0) {
    if (++steps > mostSteps) {
      warning("The journal leads round in circles; older entries may be missing");
      return;
    }
    if (!journal.read(&entry)) continue;
    ++count;
    if (!add(entry)) return;
  }
  if (result < 0) warning("Reading the journal ended early: " + systemErrorText(-result));
  if (count < expected) {
    warning(formatted("%" PRIu64 " of %" PRIu64 " journal entries were not found", expected - count,
                      expected));
  }
}

bool JournalExport::add(const JournalEntry& entry) {
  const MutexLock lock(mutex_);
  const std::uint64_t age = ageOf(entry);
  bool wantsMore = false;
  for (Kind& kind : kinds_) {
    if (age > kind.age) kind.entries.close();
    if (kind.holds(entry)) kind.entries.add(entry.text);
    wantsMore = wantsMore || kind.entries.isOpen();
  }
  return wantsMore;
}

std::uint64_t JournalExport::ageOf(const JournalEntry& entry) const {
  const bool thisBoot = entry.boot == now_.boot;
  const std::uint64_t now = thisBoot ? now_.sinceBoot : now_.realTime;
  const std::uint64_t then = thisBoot ? entry.sinceBoot : entry.realTime;
  return now > then ? now - then : 0;
}

void JournalExport::visitTexts(
    const std::function<void(const char* kind, std::string_view text)>& visit) const {
  const MutexLock lock(mutex_);
  for (const Kind& kind : kinds_) {
    if (!kind.entries.text().empty()) visit(kind.name, kind.entries.text());
  }
}

void JournalExport::warnOfLongEntries(const Warning& warning) const {
  const MutexLock lock(mutex_);
  for (const Kind& kind : kinds_) {
    if (kind.entries.tooLong() == 0) continue;
    warning(formatted("%zu journal entries of the kind %s are longer than %zu bytes and left out",
                      kind.entries.tooLong(), kind.name, kind.entries.limit()));
  }
}

std::size_t JournalExport::highestLimit() const {
  const MutexLock lock(mutex_);
  std::size_t highest = 0;
  for (const Kind& kind : kinds_)
    highest = std::max(highest, kind.entries.limit());
  return highest;
}

}  // namespace quillsift
