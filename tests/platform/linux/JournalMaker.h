#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/JournalExport.h"

namespace quillsift {

// What the tests write into a journal.
struct MadeEntry {
  std::uint64_t realTime = 0;   // microseconds since 1970
  std::uint64_t sinceBoot = 0;  // microseconds
  std::string boot = "00000000000000000000000000000b01";
  std::string machine = "000000000000000000000000000000aa";
  std::vector<std::pair<std::string, std::string>> fields = {};
};

// Seconds since 1970, so that entries can be some seconds old.
std::uint64_t realTimeNow();

// A message of a transport, so many seconds old and that long after the start of its boot.
MadeEntry message(const std::string& text, const std::string& transport, std::uint64_t secondsOld,
                  std::vector<std::pair<std::string, std::string>> more = {});

// As `systemd-journal-remote` reads them.
std::string exportText(const std::vector<MadeEntry>& entries);

// Makes the journal file at `path` of entries, oldest first, with systemd-journal-remote. Parent
// directories must be there. Ends the test program when that fails.
void makeJournal(const std::string& path, const std::vector<MadeEntry>& entries);
void makeJournalOfText(const std::string& path, const std::string& text);

// What journalctl prints with these arguments.
std::string journalctl(const std::string& arguments);

// Overwrites bytes of a file.
void overwrite(const std::string& path, std::uint64_t offset, const std::string& bytes);

// A 64-bit number of the file, little-endian.
std::uint64_t numberIn(const std::string& path, std::uint64_t offset);

}  // namespace quillsift
