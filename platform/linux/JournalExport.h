#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/LogArchiveBuilder.h"
#include "platform/Mutex.h"
#include "platform/linux/JournalFiles.h"
#include "platform/linux/JournalReader.h"
#include "platform/linux/NewestEntries.h"

namespace quillsift {

// The newest entries of journal files, by kind, in the journal export format:
//   persist     what services say: transports journal and stdout
//   special     what is urgent: priority 0 to 3, whatever the transport
//   signpost    the audit trail
//   highvolume  transports syslog and kernel
// An entry may be of two kinds, or of none. The files may be of any machine, still be written to,
// or be damaged: what can be read counts.
//
// Reading goes back from the newest entry, once, and sorts each entry into the kinds it belongs to.
// Another thread may look at what there is so far.
class JournalExport {
 public:
  // Texts for the log, a line each. On the thread that reads.
  using Warning = std::function<void(const std::string& text)>;

  // What the age of an entry is measured by: its own boot's entries by the clock that never jumps.
  struct Now {
    std::uint64_t realTime = 0;   // microseconds since 1970
    std::uint64_t sinceBoot = 0;  // microseconds
    std::array<std::uint8_t, 16> boot = {};

    static Now ofThisMachine();
  };

  // Kinds without a limit are left out.
  JournalExport(const std::map<std::string, LogKindLimits>& limits, const Now& now);

  // Reads the journal files in these directories and in those right below them. Once. 0, also when
  // nothing young enough was found; ENOENT without a journal file; when none can be read, why the
  // first cannot, as an errno value. Every file that is damaged gives a warning.
  int read(const std::vector<std::string>& directories, const Warning& warning);

  // Calls `visit` with each kind's text that is not empty, oldest entry first, in the order above.
  // Nothing is added meanwhile.
  void visitTexts(const std::function<void(const char* kind, std::string_view text)>& visit) const;

 private:
  struct Kind {
    const char* name;
    bool (*holds)(const JournalEntry& entry);
    std::uint64_t age;  // microseconds
    NewestEntries entries;
  };

  // All entries that are wanted; `expected` is how many there should be.
  void readEntries(JournalReader& journal, std::uint64_t expected, const Warning& warning);
  // Whether an older entry than this may still be wanted.
  bool add(const JournalEntry& entry);
  std::uint64_t ageOf(const JournalEntry& entry) const;
  void warnOfLongEntries(const Warning& warning) const;
  std::size_t highestLimit() const;

  const Now now_;
  mutable Mutex mutex_;
  std::vector<Kind> kinds_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
