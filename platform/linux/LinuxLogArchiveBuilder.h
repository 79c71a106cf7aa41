#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/LogArchiveBuilder.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// The archive of the host's journal: a file "<kind>.export" for each kind that has entries, in the
// journal export format, which systemd-journal-remote turns into journal files again. The journal
// is that in /run/log/journal and /var/log/journal.
//
// A program of ours reads it, as a child that cannot take the daemon along (JournalExportMain.cpp).
// Its members are sealed files in memory. Any thread.
class LinuxLogArchiveBuilder : public LogArchiveBuilder {
 public:
  // Reading ends after `reading` with what there is; the child after `whole`, with nothing.
  struct TimeLimits {
    std::chrono::seconds reading{30};
    std::chrono::seconds whole{60};
  };

  // `program` is the reading program's file.
  LinuxLogArchiveBuilder(std::shared_ptr<const PlatformTree> tree, std::string program,
                         TimeLimits limits);
  LinuxLogArchiveBuilder(std::shared_ptr<const PlatformTree> tree, std::string program)
      : LinuxLogArchiveBuilder(std::move(tree), std::move(program), TimeLimits()) {}

  // "quillsift/quillsift-journal-export" beside the running executable; empty when that cannot be
  // told.
  static std::string programBesideExecutable();

  // ENOSYS where no journal is kept, ENOENT without a file of one, ETIMEDOUT when the child had to
  // be ended, EIO when it ended in disorder; else what the child says.
  int build(const std::map<std::string, LogKindLimits>& limits, const Warning& warning,
            const Member& member) override;

 private:
  std::vector<std::string> journalDirectories() const;

  const std::shared_ptr<const PlatformTree> tree_;
  const std::string program_;
  const TimeLimits limits_;
};

}  // namespace quillsift
