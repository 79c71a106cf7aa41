#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/QSDate.h"
#include "platform/WireValue.h"

namespace quillsift {

class QSJob;

// The snapshot of one job that clients see: its state and the size of its data, not the data.
// Filled once and not changed afterwards, so it may be read from any thread.
class QSJobInfo {
 public:
  // How the job stands at this moment.
  explicit QSJobInfo(const QSJob& job);
  QSJobInfo() = delete;
  virtual ~QSJobInfo() = default;
  QSJobInfo(const QSJobInfo&) = default;
  QSJobInfo& operator=(const QSJobInfo&) = default;

  // None when a value has another type than its key asks for. An absent key is "none" (0 and false
  // for status and sensitivity); keys that are not ours are ignored.
  static std::optional<QSJobInfo> initWithCoder(const WireDictionary& record);
  // The seven keys, absent values left out.
  WireDictionary encodeWithCoder() const;

  const std::optional<std::string>& uuid() const { return uuid_; }
  std::int64_t jobStatus() const { return jobStatus_; }
  const std::optional<std::string>& relativeFilePathAndName() const {
    return relativeFilePathAndName_;
  }
  const std::optional<std::string>& failureReason() const { return failureReason_; }
  const std::optional<std::uint64_t>& jobSize() const { return jobSize_; }
  const std::optional<QSDate>& dateFinished() const { return dateFinished_; }
  bool sensitive() const { return sensitive_; }

  std::string description() const;
  // Whether both are of the same job, by uuid. False for a subclass, and for an absent uuid.
  bool isEqual(const QSJobInfo& other) const;
  // Whether every field is equal. Size, date and reason count as equal when either has none.
  bool jobItemsEqual(const QSJobInfo& other) const;

 protected:
  struct Decoding {};
  explicit QSJobInfo(Decoding) {}

  bool sensitive_ = false;
  std::int64_t jobStatus_ = 0;
  std::optional<std::string> relativeFilePathAndName_;
  std::optional<std::string> failureReason_;
  std::optional<std::uint64_t> jobSize_;
  std::optional<QSDate> dateFinished_;
  std::optional<std::string> uuid_;
};

}  // namespace quillsift
