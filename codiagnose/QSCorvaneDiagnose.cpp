#include "codiagnose/QSCorvaneDiagnose.h"

#include <utility>

#include "codiagnose/QSCorvaneDiagnoseError.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr const char* kServiceQueueLabel = "io.vantor.quillsiftd.QSCorvaneDiagnose.Service";

constexpr const char* kRequestType = "REQUEST_TYPE";
constexpr const char* kResponseType = "RESPONSE_TYPE";
constexpr const char* kFileTransfer = "FILE_TX";
constexpr const char* kFileName = "FILE_NAME";
constexpr const char* kFailureReason = "FAILURE_REASON";

constexpr std::uint64_t kProduceArchive = 1;
constexpr std::uint16_t kArchiveFollows = 1;
constexpr std::uint16_t kFailed = 2;

void log(int level, const std::string& message) {
  Platform::current().systemLog->write(kInstallFacility | level, message);
}

std::shared_ptr<CoDiagnose> fail(QSError* error, std::int64_t code) {
  setError(error, QSCorvaneDiagnoseError::errorWithCode(code));
  return nullptr;
}

// 0 for what is not there or is no such number.
std::uint64_t number(const RemoteDictionary& dictionary, const char* key) {
  const auto entry = dictionary.values.find(key);
  const auto* value =
      entry != dictionary.values.end() ? entry->second.as<std::uint64_t>() : nullptr;
  return value != nullptr ? *value : 0;
}

const std::string* text(const RemoteDictionary& dictionary, const char* key) {
  const auto entry = dictionary.values.find(key);
  return entry != dictionary.values.end() ? entry->second.as<std::string>() : nullptr;
}

}  // namespace

std::shared_ptr<CoDiagnose> QSCorvaneDiagnose::initReturningError(QSError* error) {
  auto queue =
      Platform::current().workQueues->makeSerialQueue(kServiceQueueLabel, QOSClass::userInitiated);
  const auto device = Platform::current().remoteDevices->uniqueDevice(kCompanionDeviceType);
  if (!device) return fail(error, QSCorvaneErrorNoDevice);
  const std::string name = device->name();
  if (device->state() != RemoteDeviceState::connected) {
    log(kLogWarning, "Co-omnitrawl for Corvane is not possible because the device (" + name +
                         ") is not connected.");
    return fail(error, QSCorvaneErrorNotConnected);
  }
  const auto service = device->service(kCompanionServiceName);
  if (!service) {
    log(kLogWarning,
        "Co-omnitrawl for Corvane is not possible, cannot get service for device (" + name + ").");
    return fail(error, QSCorvaneErrorNoService);
  }
  auto connection = service->makeConnection(queue);
  if (!connection) return fail(error, QSCorvaneErrorNoConnection);
  const std::shared_ptr<QSCorvaneDiagnose> diagnose(new QSCorvaneDiagnose(std::move(queue)));
  diagnose->connect(std::move(connection));
  return diagnose;
}

QSCorvaneDiagnose::QSCorvaneDiagnose(std::shared_ptr<SerialQueue> serviceQueue)
    : serviceQueue_(std::move(serviceQueue)) {}

// The last reference may be one that an event took, on the service queue itself: never a
// synchronous submit from here.
QSCorvaneDiagnose::~QSCorvaneDiagnose() {
  _invalidate();
}

void QSCorvaneDiagnose::connect(std::shared_ptr<RemoteConnection> connection) {
  serviceConnection_ = std::move(connection);
  serviceConnection_->setEventHandler([weakly = weak_from_this()](const RemoteEvent& event) {
    if (const auto self = weakly.lock()) self->handleRemoteEvent(event);
  });
  serviceConnection_->activate();
}

bool QSCorvaneDiagnose::startGatheringReturningError(QSError* error) {
  bool started = false;
  serviceQueue_->sync([&] { started = start(error); });
  return started;
}

bool QSCorvaneDiagnose::start(QSError* error) {
  if (gathering_) {
    setError(error, QSCorvaneDiagnoseError::errorWithCode(QSCorvaneErrorAlreadyRunning));
    return false;
  }
  gathering_ = true;
  archiveName_ = kDefaultArchiveName;
  archiveValid_ = false;
  auto pipe = Platform::current().remoteDevices->makePipe();
  if (!pipe) {
    gathering_ = false;
    remoteDiagnosticHandle_.reset();
    remoteDiagnosticWriteHandle_.reset();
    setError(error, QSCorvaneDiagnoseError::errorWithCode(QSCorvaneErrorUnknown));
    return false;
  }
  // The ones of an earlier start close when whoever still uses them lets go.
  remoteDiagnosticHandle_ = std::move(pipe->readHandle);
  remoteDiagnosticWriteHandle_ = std::move(pipe->writeHandle);

  RemoteDictionary request;
  request.values.emplace(kRequestType, kProduceArchive);
  log(kLogInfo,
      "QSCorvaneDiagnose: Starting Corvane omnitrawl with params: " + request.description());
  if (serviceConnection_) serviceConnection_->send(request);
  return true;
}

void QSCorvaneDiagnose::invalidate() {
  serviceQueue_->sync([this] { _invalidate(); });
}

void QSCorvaneDiagnose::_invalidate() {
  invalidated_ = true;
  gathering_ = false;
  if (const auto connection = std::exchange(serviceConnection_, nullptr)) connection->cancel();
  // The write end first: bytes in the pipe still reach the reader, and a clean end behind them.
  if (const auto writeHandle = std::exchange(remoteDiagnosticWriteHandle_, nullptr)) {
    writeHandle->close();
  }
  if (const auto readHandle = std::exchange(remoteDiagnosticHandle_, nullptr)) readHandle->close();
}

void QSCorvaneDiagnose::handleRemoteEvent(const RemoteEvent& event) {
  switch (event.kind) {
    case RemoteEvent::Kind::dictionary:
      return _handleRemoteEventDictionary(event.dictionary);
    case RemoteEvent::Kind::error:
      log(kLogWarning, formatted("QSCorvaneDiagnose: Connection to '%s' terminated with an Weft "
                                 "error: %s",
                                 kCompanionServiceName, event.text.c_str()));
      return _invalidate();
    case RemoteEvent::Kind::other:
      log(kLogWarning, formatted("QSCorvaneDiagnose: Connection to '%s' terminated with event "
                                 "type: %s",
                                 kCompanionServiceName, event.text.c_str()));
      return _invalidate();
  }
}

void QSCorvaneDiagnose::_handleRemoteEventDictionary(const RemoteDictionary& response) {
  const auto type = static_cast<std::uint16_t>(number(response, kResponseType));
  if (type == kFailed) return handleFailure(response);
  if (type == kArchiveFollows) return handleArchive(response);
  log(kLogWarning, formatted("QSCorvaneDiagnose: Unknown response type received: %d", type));
}

void QSCorvaneDiagnose::handleFailure(const RemoteDictionary& response) {
  const unsigned long long reason = number(response, kFailureReason);
  log(kLogError, formatted("QSCorvaneDiagnose: Failed to receive Corvane omnitrawl. Failure Code: "
                           "%llu",
                           reason));
  gathering_ = false;
  if (remoteDiagnosticHandle_) remoteDiagnosticHandle_->close();
}

void QSCorvaneDiagnose::handleArchive(const RemoteDictionary& response) {
  const auto file = response.files.find(kFileTransfer);
  if (file == response.files.end()) {
    log(kLogWarning, "QSCorvaneDiagnose: Did not receive a file transfer object. Weft Response: " +
                         response.description());
    return;
  }
  if (const std::string* name = text(response, kFileName)) archiveName_ = *name;
  FileDescriptor destination;
  if (remoteDiagnosticWriteHandle_) destination = remoteDiagnosticWriteHandle_->take();
  // Held weakly, but the queue strongly: the outcome is one more task behind whatever waits there.
  file->second->writeTo(std::move(destination),
                        [weakly = weak_from_this(), queue = serviceQueue_](int error) {
                          queue->async([weakly, error] {
                            if (const auto self = weakly.lock()) self->endTransfer(error);
                          });
                        });
}

void QSCorvaneDiagnose::endTransfer(int error) {
  gathering_ = false;
  archiveValid_ = error == 0;
  if (error == 0) return;
  log(kLogWarning,
      "QSCorvaneDiagnose: weft_file_transfer_write_to_fd failed. " + systemErrorText(error));
}

template <typename Value>
Value QSCorvaneDiagnose::onServiceQueue(Value QSCorvaneDiagnose::*property) {
  Value value{};
  serviceQueue_->sync([&] { value = this->*property; });
  return value;
}

bool QSCorvaneDiagnose::gathering() {
  return onServiceQueue(&QSCorvaneDiagnose::gathering_);
}

bool QSCorvaneDiagnose::invalidated() {
  return onServiceQueue(&QSCorvaneDiagnose::invalidated_);
}

std::string QSCorvaneDiagnose::archiveName() {
  return onServiceQueue(&QSCorvaneDiagnose::archiveName_);
}

bool QSCorvaneDiagnose::archiveValid() {
  return onServiceQueue(&QSCorvaneDiagnose::archiveValid_);
}

std::shared_ptr<PipeReadHandle> QSCorvaneDiagnose::remoteDiagnosticHandle() {
  return onServiceQueue(&QSCorvaneDiagnose::remoteDiagnosticHandle_);
}

}  // namespace quillsift
