#include "daemon/QSServiceClient.h"

#include <new>
#include <utility>

#include "daemon/QSServiceDaemon.h"
#include "daemon/protocol/QSServiceProtocols.h"
#include "host/SystemLogging.h"
#include "platform/Platform.h"
#include "platform/QualityOfService.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

// Longest executable path that is asked for.
constexpr std::size_t kProcessPathLimit = 4096;

std::optional<std::string> executablePathOf(pid_t process) {
  std::string path =
      Platform::current().hostInformation->executablePath(process, kProcessPathLimit);
  if (path.empty()) return std::nullopt;
  return path;
}

void answer(const ServiceRequest& request, std::vector<WireValue> results) {
  if (request.reply) request.reply(std::move(results));
}

std::vector<WireValue> oneValue(WireValue value) {
  std::vector<WireValue> values;
  values.push_back(std::move(value));
  return values;
}

void queryJobStatusInformation(QSServiceDaemon& daemon, const ServiceRequest& request) {
  std::optional<QSDate> dateFinished;
  WireArray jobs;
  for (const QSJobInfo& info : daemon.getCurrentJobInfosWithDate(&dateFinished)) {
    jobs.emplace_back(info.encodeWithCoder());
  }
  WireArray dates;
  if (dateFinished) dates.emplace_back(dateFinished->secondsSince1970);
  std::vector<WireValue> results;
  results.emplace_back(std::move(jobs));
  results.emplace_back(std::move(dates));
  answer(request, std::move(results));
}

void startQuillsift(QSServiceDaemon& daemon, const ServiceRequest& request) {
  bool refused = false;
  daemon.takeQuillsift(&refused);
  answer(request, oneValue(WireValue(!refused)));
}

void clearQuillsiftData(QSServiceDaemon& daemon, const ServiceRequest& request) {
  daemon.clearRecoveryData();
  answer(request, {});
}

void saveQuillsift(QSServiceDaemon& daemon, const ServiceRequest& request) {
  const auto* destination = request.arguments.at(0).as<std::string>();
  const auto* shouldArchive = request.arguments.at(1).as<bool>();
  const auto* collectSensitiveFiles = request.arguments.at(2).as<bool>();
  if (destination == nullptr || shouldArchive == nullptr || collectSensitiveFiles == nullptr) {
    return;  // cannot happen: the connection has checked the types
  }
  daemon.saveQuillsiftToDestination(
      *destination, *shouldArchive, *collectSensitiveFiles,
      [&](bool started) { answer(request, oneValue(WireValue(started))); });
}

}  // namespace

QSServiceClient::QSServiceClient(std::shared_ptr<ServiceConnection> connection,
                                 const std::shared_ptr<QSServiceDaemon>& serviceDaemon)
    : clientPID_(connection->processIdentifier()),
      clientAuditIdentifier_(connection->auditSessionIdentifier()),
      clientUID_(connection->effectiveUserIdentifier()),
      connection_(std::move(connection)),
      serviceDaemon_(serviceDaemon),
      clientPath_(executablePathOf(clientPID_)),
      clientQueue_(Platform::current().workQueues->makeSerialQueue(
          formatted("io.vantor.QSServiceClient.%d", static_cast<int>(clientPID_)), currentQOS(),
          serviceDaemon->serviceQueue())) {}

std::shared_ptr<QSServiceClient> QSServiceClient::initWithConnection(
    std::shared_ptr<ServiceConnection> connection,
    const std::shared_ptr<QSServiceDaemon>& serviceDaemon) {
  // Not make_shared: the constructor is private, and the handlers need the weak reference that
  // exists only once the object is owned.
  std::shared_ptr<QSServiceClient> client(
      new QSServiceClient(std::move(connection), serviceDaemon));
  client->connection_->setExportedInterface(serverProtocol(), client);
  client->connection_->setRemoteInterface(clientProtocol());
  client->installHandlers();
  client->logConnectionEvent("Connection Accepted");
  client->connection_->resume();
  return client;
}

QSServiceClient::~QSServiceClient() {
  connection_->invalidate();
}

void QSServiceClient::installHandlers() {
  const std::weak_ptr<QSServiceClient> weak = weak_from_this();
  connection_->setInterruptionHandler([weak] {
    const auto client = weak.lock();
    if (!client) return;
    client->clientQueue_->async([client] { client->logConnectionEvent("Connection Interrupted"); });
  });
  connection_->setInvalidationHandler([weak] {
    const auto client = weak.lock();
    if (!client) return;
    client->clientQueue_->async([client] {
      client->logConnectionEvent("Connection Invalidated");
      if (const auto daemon = client->serviceDaemon_.lock()) daemon->clientInvalidated(client);
    });
  });
  connection_->setSendErrorHandler([weak] {
    if (const auto client = weak.lock()) client->logConnectionEvent("Proxy Error");
  });
}

void QSServiceClient::handleRequest(ServiceRequest request) {
  WorkQueues& queues = *Platform::current().workQueues;
  WorkQueue& queue = queues.global(currentQOS());
  const std::string& method = request.method;
  if (method == wire::kQueryJobStatusInformation) {
    perform(std::move(request), queryJobStatusInformation, queues.prompt());
  } else if (method == wire::kStartQuillsift) {
    perform(std::move(request), startQuillsift, queue);
  } else if (method == wire::kClearQuillsiftData) {
    perform(std::move(request), clearQuillsiftData, queue);
  } else if (method == wire::kSaveQuillsift) {
    perform(std::move(request), saveQuillsift, queue);
  }
}

void QSServiceClient::perform(ServiceRequest request,
                              void (*method)(QSServiceDaemon&, const ServiceRequest&),
                              WorkQueue& queue) {
  // Never on clientQueue: a start or a clear broadcasts synchronously on the queue that it targets.
  queue.async([daemon = serviceDaemon_, request = std::move(request), method] {
    const auto strong = daemon.lock();
    if (!strong) return;
    try {
      method(*strong, request);
    } catch (const std::bad_alloc&) {
      // The peer hears that its request failed; what has been collected must outlive it.
      writeToSystemLog(kLogError, "Out of memory: a client's request was dropped.");
    }
  });
}

void QSServiceClient::notify(const char* notification, std::vector<WireValue> arguments) {
  clientQueue_->async(
      [client = shared_from_this(), notification, arguments = std::move(arguments)]() mutable {
        client->connection_->send(notification, std::move(arguments));
      });
}

void QSServiceClient::reportSaveProgress(double progress, std::int64_t saveProgressState,
                                         std::string savePath) {
  std::vector<WireValue> arguments;
  arguments.emplace_back(progress);
  arguments.emplace_back(saveProgressState);
  arguments.emplace_back(std::move(savePath));
  notify(wire::kReportSaveProgress, std::move(arguments));
}

void QSServiceClient::quillsiftStarted() {
  notify(wire::kQuillsiftStarted, {});
}

void QSServiceClient::quillsiftDataCleared() {
  notify(wire::kQuillsiftDataCleared, {});
}

void QSServiceClient::jobStatusChangedWithInfo(const QSJobInfo& info) {
  notify(wire::kJobStatusChanged, oneValue(WireValue(info.encodeWithCoder())));
}

void QSServiceClient::logConnectionEvent(const char* event) const {
  std::optional<std::string> name;
  if (clientPath_) name = lastPathComponent(*clientPath_);
  logToSystem(kLogInfo, "%s for Client:%d (%s)", event, static_cast<int>(clientPID_),
              orNull(name).c_str());
}

}  // namespace quillsift
