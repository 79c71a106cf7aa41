#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "collect/CollectionServices.h"
#include "collect/CollectionSession.h"
#include "collect/VolumeCollectors.h"
#include "jobs/QSJob.h"
#include "platform/QualityOfService.h"

namespace quillsift {

// What a session collects, in order. The relative paths are the names in the saved output and so
// part of its format; a leading "/" is part of the name.

struct PlanRow;

// Where a row's data come from. Paths and arguments are exact.
struct Command {
  std::string program;
  std::vector<std::string> arguments;
};
struct FileCopy {
  std::string path;
};
// A file whose place the host tells; no job when it tells none.
struct LocatedFileCopy {
  std::optional<std::string> (VolumeServices::*locate)();
};
// One file copy, or one plain read, for each entry of a directory, not of those below it.
struct EntryCopies {
  std::string directory;
};
struct EntryReads {
  std::string directory;
};
struct Work {
  WorkBlock (*make)(const std::string& source);
  std::string source;
};
struct Report {
  CollectionServices::Report CollectionServices::*report;
};
// Queues the jobs of its row itself, now or from another thread.
struct Producer {
  void (*produce)(const CollectionSession& session, const PlanRow& row);
};
// One collector for each volume of a role.
struct PerVolume {
  std::int16_t role;
  VolumeCollector collector;
};
struct CoDiagnoseArchive {};

using PlanSource = std::variant<Command, FileCopy, LocatedFileCopy, EntryCopies, EntryReads, Work,
                                Report, Producer, PerVolume, CoDiagnoseArchive>;

enum class Sensitive : bool { no = false, yes = true };

enum class PlanHosts { all, internal, vantorSilicon, otherSilicon };

// Asked when the row's turn comes.
struct PlanCondition {
  PlanHosts hosts = PlanHosts::all;
  std::string existingPath = {};  // empty: none needed
};

struct PlanRow {
  PlanSource source;
  // Ends in "/" where the name of an entry, display or volume is added. Empty where the source
  // itself names its jobs.
  std::string relativePath;
  Sensitive sensitive;
  std::optional<QOSClass> qos;  // none: that of the thread that queues the job
  PlanCondition condition = {};
};

inline bool isSensitive(const PlanRow& row) {
  return row.sensitive == Sensitive::yes;
}

// The class of a job of this row that the calling thread is about to queue.
inline QOSClass qosToQueue(const PlanRow& row) {
  return row.qos.value_or(currentQOS());
}

// Waits until no job is left, but at most so long. Late jobs go on.
struct PlanWait {
  std::chrono::seconds limit;
};

enum class PlanAction {
  announceStart,
  startCoDiagnose,
  approveAccessories,
  findVolumes,
  endSession,
};

using PlanItem = std::variant<PlanAction, PlanWait, PlanRow>;

const std::vector<PlanItem>& collectionPlan();

}  // namespace quillsift
