#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "jobs/QSJobEntry.h"
#include "platform/QSDate.h"

// libarchive's own types; its headers are included by PaxArchive.cpp alone.
struct archive;
struct archive_entry;

namespace quillsift {

// A pax archive compressed by gzip at level 9, written to an open file. One thread at a time.
//
// Names that are not ASCII need a UTF-8 character type locale in the process; elsewhere such a
// member is refused. One that is not valid UTF-8 gets U+FFFD for each wrong byte.
class PaxArchive {
 public:
  PaxArchive();
  // Gives up what was not closed. The descriptor must still be open.
  ~PaxArchive();
  PaxArchive(const PaxArchive&) = delete;
  PaxArchive& operator=(const PaxArchive&) = delete;

  // Starts an archive at the descriptor's position. It stays the caller's and open.
  bool openOnDescriptor(int descriptor);
  // Adds a regular file named `path` as it is, leading slash included. With a date not before 1970
  // it gets that as its birth time and a modification time one second later, else no times.
  bool addMember(const std::string& path, const QSJobEntry& entry,
                 const std::optional<QSDate>& dateFinished);
  // Writes the rest. False when it did not all reach the file: then nothing of it can be trusted.
  bool close();

  // What was wrong with the last operation that returned false.
  std::string errorText() const;

 private:
  bool writeData(std::span<const std::byte> data);

  struct Releaser {
    void operator()(archive* archive) const;
  };
  std::unique_ptr<archive, Releaser> archive_;
  std::vector<std::byte> block_;
};

}  // namespace quillsift
