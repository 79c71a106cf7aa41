#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "jobs/QSJob.h"

namespace quillsift {

// States of a save as clients see them; the numbers are the protocol's.
enum class SaveProgressState : std::int64_t { started = 0, progress = 1, finished = 2, failed = 3 };

// What a save writer needs of whoever owns the session.
class SaveHost {
 public:
  virtual ~SaveHost() = default;

  // A copy of the session's job list, in its order. Called once per save.
  virtual std::vector<std::shared_ptr<QSJob>> copyJobs() = 0;
  // Passes a progress report on to the clients. Returns at once.
  virtual void reportSaveProgress(double progress, SaveProgressState state,
                                  const std::string& path) = 0;
};

}  // namespace quillsift
