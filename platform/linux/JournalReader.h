#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/JournalFiles.h"

struct sd_journal;

namespace quillsift {

struct JournalEntry {
  std::uint64_t realTime = 0;   // microseconds since 1970
  std::uint64_t sinceBoot = 0;  // microseconds, on the clock of the boot
  std::array<std::uint8_t, 16> boot = {};
  std::string transport;        // how it came; empty: the entry does not say
  std::optional<int> priority;  // 0, the most urgent, to 7
  std::string text;             // in the journal export format
};

// Walks back through a set of journal files as one journal. One thread.
class JournalReader {
 public:
  // Whether the file can be read as a journal at all: 0, or an errno value.
  static int whyUnreadable(const JournalFile& file);

  // The files must be readable ones and stay open. Fields above `longestField` bytes may come cut,
  // but stay longer than that. Null and `code` on failure.
  static std::unique_ptr<JournalReader> open(const std::vector<JournalFile>& files,
                                             std::size_t longestField, int* code);
  ~JournalReader();

  // Goes to the next older entry, at first the newest: 1, or 0 when there is none, or a negative
  // errno value. Damaged entries are left out.
  int previous();
  // Reads the entry at hand. False when damage leaves nothing of it to read. Damaged fields are
  // left out.
  bool read(JournalEntry* entry);

 private:
  explicit JournalReader(sd_journal* journal) : journal_(journal) {}

  bool readStamps(JournalEntry* entry);
  void readFields(JournalEntry* entry);

  sd_journal* const journal_;
};

}  // namespace quillsift
