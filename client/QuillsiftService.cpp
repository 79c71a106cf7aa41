#include "client/QuillsiftService.h"

#include <utility>

#include "daemon/protocol/QSServiceProtocols.h"

namespace quillsift {

namespace {

using namespace std::chrono_literals;

// A person who presses Ctrl-C waits no longer than this; the daemon normally answers at once.
constexpr auto kAnswerLimit = 2s;
// A long job list on a slow machine takes its time.
constexpr auto kQueryLimit = 5s;

void fail(ServiceError* out, ServiceError error) {
  if (out != nullptr) *out = std::move(error);
}

std::optional<SessionSnapshot> decodeSnapshot(const std::vector<WireValue>& results) {
  if (results.size() != 2) return std::nullopt;
  const auto* records = results[0].as<WireArray>();
  const auto* dates = results[1].as<WireArray>();
  if (records == nullptr || dates == nullptr || dates->size() > 1) return std::nullopt;

  SessionSnapshot snapshot;
  snapshot.jobs.reserve(records->size());
  for (const WireValue& value : *records) {
    const auto* record = value.as<WireDictionary>();
    auto job = record == nullptr ? std::nullopt : QSJobInfo::initWithCoder(*record);
    if (!job) return std::nullopt;
    snapshot.jobs.push_back(std::move(*job));
  }
  if (!dates->empty()) {
    const auto* seconds = dates->front().as<double>();
    if (seconds == nullptr) return std::nullopt;
    snapshot.dateFinished = QSDate{*seconds};
  }
  return snapshot;
}

std::optional<SaveReport> decodeSaveReport(const std::vector<WireValue>& arguments) {
  if (arguments.size() != 3) return std::nullopt;
  const auto* progress = arguments[0].as<double>();
  const auto* state = arguments[1].as<std::int64_t>();
  const auto* path = arguments[2].as<std::string>();
  if (progress == nullptr || state == nullptr || path == nullptr) return std::nullopt;
  if (*state < static_cast<std::int64_t>(SaveState::started) ||
      *state > static_cast<std::int64_t>(SaveState::failed)) {
    return std::nullopt;
  }
  return SaveReport{*progress, static_cast<SaveState>(*state), *path};
}

std::optional<QSJobInfo> decodeJob(const std::vector<WireValue>& arguments) {
  const auto* record = arguments.size() == 1 ? arguments[0].as<WireDictionary>() : nullptr;
  if (record == nullptr) return std::nullopt;
  return QSJobInfo::initWithCoder(*record);
}

}  // namespace

std::unique_ptr<QuillsiftService> QuillsiftService::connect(RemoteServiceConnector& connector,
                                                            const std::string& socketPath,
                                                            ServiceError* error) {
  QSError reason;
  auto remote = connector.connect(socketPath, serverProtocol(), clientProtocol(), &reason);
  if (!remote) {
    fail(error, ServiceError::ofConnecting(socketPath, reason));
    return nullptr;
  }
  return std::make_unique<QuillsiftService>(std::move(remote));
}

QuillsiftService::QuillsiftService(std::unique_ptr<RemoteService> remote)
    : remote_(std::move(remote)) {
  remote_->setNotificationHandler(
      [this](const std::string& name, const std::vector<WireValue>& arguments) {
        notified(name, arguments);
      });
}

std::optional<SessionSnapshot> QuillsiftService::queryJobs(ServiceError* error) {
  const auto results = call(wire::kQueryJobStatusInformation, {}, kQueryLimit, error);
  if (!results) return std::nullopt;
  auto snapshot = decodeSnapshot(*results);
  if (!snapshot) fail(error, ServiceError::unreadableAnswer(wire::kQueryJobStatusInformation));
  return snapshot;
}

std::optional<bool> QuillsiftService::start(ServiceError* error) {
  return callForFlag(wire::kStartQuillsift, {}, error);
}

bool QuillsiftService::clear(ServiceError* error) {
  return call(wire::kClearQuillsiftData, {}, kAnswerLimit, error).has_value();
}

std::optional<bool> QuillsiftService::save(const std::string& destination, bool shouldArchive,
                                           bool collectSensitiveFiles, ServiceError* error) {
  return callForFlag(
      wire::kSaveQuillsift,
      {WireValue(destination), WireValue(shouldArchive), WireValue(collectSensitiveFiles)}, error);
}

QuillsiftService::Wake QuillsiftService::processEvents(std::chrono::nanoseconds limit,
                                                       int wakeDescriptor) {
  return remote_->processEvents(limit, wakeDescriptor);
}

std::optional<std::vector<WireValue>> QuillsiftService::call(
    const char* method, const std::vector<WireValue>& arguments, std::chrono::nanoseconds limit,
    ServiceError* error) {
  QSError reason;
  auto results = remote_->call(method, arguments, limit, &reason);
  if (!results) fail(error, ServiceError::ofCalling(method, reason));
  return results;
}

std::optional<bool> QuillsiftService::callForFlag(const char* method,
                                                  const std::vector<WireValue>& arguments,
                                                  ServiceError* error) {
  const auto results = call(method, arguments, kAnswerLimit, error);
  if (!results) return std::nullopt;
  const auto* flag = results->size() == 1 ? results->front().as<bool>() : nullptr;
  if (flag == nullptr) {
    fail(error, ServiceError::unreadableAnswer(method));
    return std::nullopt;
  }
  return *flag;
}

void QuillsiftService::notified(const std::string& name, const std::vector<WireValue>& arguments) {
  if (observer_ != nullptr && !deliver(name, arguments)) observer_->unreadableNotification(name);
}

bool QuillsiftService::deliver(const std::string& name, const std::vector<WireValue>& arguments) {
  if (name == wire::kQuillsiftStarted) {
    observer_->sessionStarted();
    return true;
  }
  if (name == wire::kQuillsiftDataCleared) {
    observer_->sessionCleared();
    return true;
  }
  if (name == wire::kJobStatusChanged) {
    const auto job = decodeJob(arguments);
    if (job) observer_->jobChanged(*job);
    return job.has_value();
  }
  if (name == wire::kReportSaveProgress) {
    const auto report = decodeSaveReport(arguments);
    if (report) observer_->saveReported(*report);
    return report.has_value();
  }
  return false;
}

}  // namespace quillsift
