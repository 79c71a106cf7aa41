#include "daemon/protocol/QSJobInfo.h"

#include <cinttypes>
#include <typeinfo>

#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr const char* kUUIDKey = "QSJobInfoUUID";
constexpr const char* kRelativeFilePathAndNameKey = "QSJobInfoRelativeFilePathAndName";
constexpr const char* kSizeKey = "QSJobInfoSize";
constexpr const char* kFailureReasonKey = "QSJobInfoFailureReason";
constexpr const char* kDateFinishedKey = "QSJobInfoDateFinished";
constexpr const char* kJobStatusKey = "QSJobInfoJobStatus";
constexpr const char* kSensitiveKey = "QSJobInfoSensitive";

// Stores the value of `key`, if there is one, in `out`. False when it has another type than Wire.
template <typename Wire, typename Field>
bool decode(const WireDictionary& record, const char* key, Field* out) {
  const auto entry = record.find(key);
  if (entry == record.end()) return true;
  const Wire* value = entry->second.as<Wire>();
  if (value == nullptr) return false;
  *out = Field(*value);
  return true;
}

bool decodeDate(const WireDictionary& record, const char* key, std::optional<QSDate>* out) {
  std::optional<double> seconds;
  if (!decode<double>(record, key, &seconds)) return false;
  if (seconds) *out = QSDate{*seconds};
  return true;
}

// The rule for fields that identify: none is equal to nothing, not even to none.
template <typename T>
bool bothPresentAndEqual(const std::optional<T>& a, const std::optional<T>& b) {
  return a && b && *a == *b;
}

// The rule for fields that a job may not have yet: none on either side counts as equal.
template <typename T>
bool equalWherePresent(const std::optional<T>& a, const std::optional<T>& b) {
  return !a || !b || *a == *b;
}

}  // namespace

std::optional<QSJobInfo> QSJobInfo::initWithCoder(const WireDictionary& record) {
  QSJobInfo info{Decoding{}};
  const bool decoded =
      decode<std::string>(record, kUUIDKey, &info.uuid_) &&
      decode<std::string>(record, kRelativeFilePathAndNameKey, &info.relativeFilePathAndName_) &&
      decode<std::uint64_t>(record, kSizeKey, &info.jobSize_) &&
      decode<std::string>(record, kFailureReasonKey, &info.failureReason_) &&
      decodeDate(record, kDateFinishedKey, &info.dateFinished_) &&
      decode<std::int64_t>(record, kJobStatusKey, &info.jobStatus_) &&
      decode<bool>(record, kSensitiveKey, &info.sensitive_);
  if (!decoded) return std::nullopt;
  return info;
}

WireDictionary QSJobInfo::encodeWithCoder() const {
  WireDictionary record;
  if (uuid_) record.emplace(kUUIDKey, *uuid_);
  if (relativeFilePathAndName_) {
    record.emplace(kRelativeFilePathAndNameKey, *relativeFilePathAndName_);
  }
  if (jobSize_) record.emplace(kSizeKey, *jobSize_);
  if (failureReason_) record.emplace(kFailureReasonKey, *failureReason_);
  if (dateFinished_) record.emplace(kDateFinishedKey, dateFinished_->secondsSince1970);
  record.emplace(kJobStatusKey, jobStatus_);
  record.emplace(kSensitiveKey, sensitive_);
  return record;
}

std::string QSJobInfo::description() const {
  const std::string size = jobSize_ ? std::to_string(*jobSize_) : kNullText;
  return formatted(
      "### QSJobInfo<%s>: %p ###\rOutputPath:%s\rfailureReason:%s\rSize:%s\rDateFinished:%s\r"
      "Status:%" PRIu64,
      orNull(uuid_).c_str(), static_cast<const void*>(this),
      orNull(relativeFilePathAndName_).c_str(), orNull(failureReason_).c_str(), size.c_str(),
      orNull(dateFinished_).c_str(), static_cast<std::uint64_t>(jobStatus_));
}

bool QSJobInfo::isEqual(const QSJobInfo& other) const {
  if (this == &other) return true;
  return typeid(other) == typeid(QSJobInfo) && bothPresentAndEqual(uuid_, other.uuid_);
}

bool QSJobInfo::jobItemsEqual(const QSJobInfo& other) const {
  if (this == &other) return true;
  return isEqual(other) && jobStatus_ == other.jobStatus_ && sensitive_ == other.sensitive_ &&
         bothPresentAndEqual(relativeFilePathAndName_, other.relativeFilePathAndName_) &&
         equalWherePresent(jobSize_, other.jobSize_) &&
         equalWherePresent(dateFinished_, other.dateFinished_) &&
         equalWherePresent(failureReason_, other.failureReason_);
}

}  // namespace quillsift
