#include "daemon/QSServiceDaemon.h"

#include <utility>

#include "daemon/QSServiceClient.h"
#include "daemon/protocol/QSServiceProtocols.h"
#include "host/SystemLogging.h"
#include "platform/Platform.h"

namespace quillsift {

QSServiceDaemon::QSServiceDaemon(CollectionRunner runner)
    : runner_(std::move(runner)),
      serviceQueue_(Platform::current().serviceConnections->makeQueue(
          "io.vantor.quillsiftd.QSServiceDaemonQueue", QOSClass::userInitiated)),
      runQueue_(Platform::current().workQueues->makeSerialQueue("io.vantor.quillsiftd.QSRunQueue",
                                                                QOSClass::utility)),
      listener_(Platform::current().serviceConnections->makeListener(kServiceName)),
      quillsiftVariablesLock_(serviceQueue_) {}

std::shared_ptr<QSServiceDaemon> QSServiceDaemon::init(CollectionRunner runner) {
  std::shared_ptr<QSServiceDaemon> daemon(new QSServiceDaemon(std::move(runner)));
  daemon->listener_->setAcceptHandler(
      [weak = std::weak_ptr(daemon)](const std::shared_ptr<ServiceConnection>& connection) {
        const auto strong = weak.lock();
        return strong && strong->listenerShouldAcceptNewConnection(connection);
      });
  return daemon;
}

bool QSServiceDaemon::startListening(QSError* error) {
  return listener_->resume(error);
}

bool QSServiceDaemon::listenerShouldAcceptNewConnection(
    const std::shared_ptr<ServiceConnection>& newConnection) {
  if (!newConnection->valueForEntitlement(kServiceEntitlement).value_or(false)) {
    logToSystem(kLogWarning, "Connection request denied due to missing entitlement.");
    return false;
  }
  const auto client = QSServiceClient::initWithConnection(newConnection, shared_from_this());
  if (!client) {
    logToSystem(kLogError, "Unable to instantiate an QSServiceClient.");
    return false;
  }
  clients_.append(client);
  return true;
}

void QSServiceDaemon::clientInvalidated(const std::shared_ptr<QSServiceClient>& client) {
  clients_.remove(*client);
}

void QSServiceDaemon::broadcast(ClientMessage message) {
  serviceQueue_->async([daemon = shared_from_this(), message = std::move(message)] {
    daemon->clients_.forEach(message);
  });
}

void QSServiceDaemon::broadcastAndWait(const ClientMessage& message) {
  serviceQueue_->sync([&] { clients_.forEach(message); });
}

std::vector<QSJobInfo> QSServiceDaemon::getCurrentJobInfosWithDate(std::optional<QSDate>* date) {
  return jobs_.each<QSJobInfo>([](const QSJob& job) { return QSJobInfo(job); }, date);
}

std::optional<QSDate> QSServiceDaemon::lastDiagnoseFinishedDate() {
  return jobs_.dateFinished();
}

void QSServiceDaemon::setLastDiagnoseFinishedDate(std::optional<QSDate> date) {
  VariablesLockHolder lock(quillsiftVariablesLock_);
  jobs_.setDateFinished(date);
}

std::set<std::string> QSServiceDaemon::mountPointsMountedByQuillsift() {
  VariablesLockHolder lock(quillsiftVariablesLock_);
  return mountPointsMountedByQuillsift_;
}

}  // namespace quillsift
