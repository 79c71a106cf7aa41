#pragma once

#include <optional>
#include <string>

#include "client/QuillsiftService.h"

namespace quillsift {

// Tells the reports of one save of ours from those of other clients' saves, which everybody gets.
// Saves never overlap in the daemon, so a report names its save by its path, and once ours is
// under way every failure is ours.
class SaveTracker {
 public:
  enum class State { requested, underWay, finished, failed };

  // `destination` as it was asked for: a report carries it, or the name it has until it is whole.
  explicit SaveTracker(std::string destination);

  // Whether the report is of our save.
  bool take(const SaveReport& report);

  State state() const { return state_; }
  const std::optional<SaveReport>& latest() const { return latest_; }
  const std::string& destination() const { return destination_; }

 private:
  const std::string destination_;
  State state_ = State::requested;
  std::optional<SaveReport> latest_;
};

// What is known of other clients' saves.
class OtherSaves {
 public:
  void take(const SaveReport& report);

  // The path that another client's save writes now.
  const std::optional<std::string>& underWay() const { return underWay_; }
  // Where another client's save has put the session, before it was cleared.
  const std::optional<std::string>& finished() const { return finished_; }

 private:
  std::optional<std::string> underWay_;
  std::optional<std::string> finished_;
};

}  // namespace quillsift
