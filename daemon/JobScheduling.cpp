// Jobs of a session: running them on worker queues and telling the clients how they stand.

#include <stdexcept>
#include <utility>

#include "daemon/QSServiceClient.h"
#include "daemon/QSServiceDaemon.h"
#include "jobs/QSFileAttributes.h"
#include "platform/Platform.h"

namespace quillsift {

namespace {

bool collectFile(const std::string& path, std::shared_ptr<const QSJobEntry>* entry,
                 QSError* error) {
  // The file opened for the attributes is the one that is read, whatever stands at the path later.
  const auto attributes =
      QSFileAttributes::fileAttributesForPath(path, QSFileAttributesKeepHandleOpen, error);
  if (!attributes) return false;
  auto data = attributes->readFileReturningDataWithError(error);
  if (!data) return false;
  if (entry != nullptr) *entry = std::make_shared<QSJobEntry>(std::move(data), *attributes);
  return true;
}

}  // namespace

void QSServiceDaemon::_runJobAtPath(std::string path, std::vector<std::string> arguments,
                                    std::string relativeFilePath, bool sensitive, QOSClass qos,
                                    std::shared_ptr<WorkGroup> group, std::string uuid) {
  __runJobAtPath(std::move(path), std::move(arguments), nullptr, std::move(relativeFilePath),
                 sensitive, qos, group, std::move(uuid));
}

void QSServiceDaemon::_runJob(WorkBlock work, std::string relativeFilePath, bool sensitive,
                              QOSClass qos, std::shared_ptr<WorkGroup> group, std::string uuid) {
  __runJobAtPath(std::nullopt, {}, std::move(work), std::move(relativeFilePath), sensitive, qos,
                 group, std::move(uuid));
}

void QSServiceDaemon::_runJobCollectingFileAtPath(std::string path, std::string relativeFilePath,
                                                  bool sensitive, QOSClass qos,
                                                  std::shared_ptr<WorkGroup> group,
                                                  std::string uuid) {
  WorkBlock work = [path = std::move(path)](std::shared_ptr<const QSJobEntry>* entry,
                                            QSError* error) {
    return collectFile(path, entry, error);
  };
  __runJobAtPath(std::nullopt, {}, std::move(work), std::move(relativeFilePath), sensitive, qos,
                 group, std::move(uuid));
}

void QSServiceDaemon::__runJobAtPath(std::optional<std::string> path,
                                     std::vector<std::string> arguments, WorkBlock workBlock,
                                     std::string relativeFilePath, bool sensitive, QOSClass qos,
                                     const std::shared_ptr<WorkGroup>& group, std::string uuid) {
  if (path && workBlock) {
    throw std::logic_error(
        "QSServiceDaemon encountered a job being queued that contained both a path to execute and "
        "a worker block.");
  }
  if (!path && !workBlock) {
    throw std::logic_error(
        "QSServiceDaemon encountered a job being queued that contained neither a path nor worker "
        "block to execute.");
  }
  Platform::current().workQueues->global(qos).asyncInGroup(
      group, [weak = weak_from_this(), path = std::move(path), arguments = std::move(arguments),
              workBlock = std::move(workBlock), relativeFilePath = std::move(relativeFilePath),
              sensitive, uuid = std::move(uuid)] {
        const auto job = path ? std::make_shared<QSJob>(*path, arguments, relativeFilePath)
                              : std::make_shared<QSJob>(workBlock, relativeFilePath);
        job->setSensitive(sensitive);
        if (const auto daemon = weak.lock()) daemon->runJobBody(job, uuid);
      });
}

void QSServiceDaemon::runJobBody(const std::shared_ptr<QSJob>& job, const std::string& uuid) {
  {
    VariablesLockHolder lock(quillsiftVariablesLock_);
    if (isCurrentSession(uuid)) {
      jobs_.append(job);
      pushJob(job);  // queued under the lock, so it stands in front of any later "cleared"
    }
  }
  job->beginSynchronousJob();

  VariablesLockHolder lock(quillsiftVariablesLock_);
  if (isCurrentSession(uuid)) pushJob(job);
}

void QSServiceDaemon::pushJob(const std::shared_ptr<QSJob>& job) {
  broadcast([job](QSServiceClient& client) { client.jobStatusChangedWithInfo(QSJobInfo(*job)); });
}

}  // namespace quillsift
