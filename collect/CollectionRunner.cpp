#include "collect/CollectionRunner.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "codiagnose/CoDiagnose.h"
#include "collect/CoDiagnoseArchiveJob.h"
#include "collect/CollectionPlan.h"
#include "collect/ReportWork.h"
#include "collect/WholeFileRead.h"
#include "host/SystemLogging.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

// One run of the plan: carries out its items one by one.
class SessionRun {
 public:
  SessionRun(CollectionSession session, CollectionHost& host)
      : session_(std::move(session)), host_(host) {}

  void operator()(PlanAction action);
  void operator()(const PlanWait& wait) { (void)session_.group->waitFor(wait.limit); }
  void operator()(const PlanRow& row) {
    if (holds(row.condition))
      std::visit([&](const auto& source) { queue(row, source); }, row.source);
  }

 private:
  void startCoDiagnose();
  void approveAccessories();
  void findVolumes();
  void endSession();

  bool holds(const PlanCondition& condition) const;

  void queue(const PlanRow& row, const Command& source);
  void queue(const PlanRow& row, const FileCopy& source);
  void queue(const PlanRow& row, const LocatedFileCopy& source);
  void queue(const PlanRow& row, const EntryCopies& source);
  void queue(const PlanRow& row, const EntryReads& source);
  void queue(const PlanRow& row, const Work& source);
  void queue(const PlanRow& row, const Report& source);
  void queue(const PlanRow& row, const Producer& source);
  void queue(const PlanRow& row, const PerVolume& source);
  void queue(const PlanRow& row, const CoDiagnoseArchive& source);
  void queueCopy(const PlanRow& row, std::string path, std::string relativePath);
  void queueWork(const PlanRow& row, WorkBlock work, std::string relativePath);

  const CollectionSession session_;
  CollectionHost& host_;
  std::shared_ptr<CoDiagnose> coDiagnose_;
  std::map<std::int16_t, std::vector<std::string>> volumesByRole_;
};

void SessionRun::operator()(PlanAction action) {
  switch (action) {
    case PlanAction::announceStart:
      return host_.announceSessionStarted();
    case PlanAction::startCoDiagnose:
      return startCoDiagnose();
    case PlanAction::approveAccessories:
      return approveAccessories();
    case PlanAction::findVolumes:
      return findVolumes();
    case PlanAction::endSession:
      return endSession();
  }
}

void SessionRun::startCoDiagnose() {
  QSError error;
  coDiagnose_ = session_.services->makeCoDiagnose(&error);
  if (!coDiagnose_) {
    logToSystem(kLogWarning, "Cannot construct QSCorvaneDiagnose. %s", orNull(error).c_str());
    return;
  }
  // One that cannot start is kept: its archive job then tells what is missing.
  if (!coDiagnose_->startGatheringReturningError(&error))
    logToSystem(kLogError, "Failed to start Corvane omnitrawl. %s", orNull(error).c_str());
}

void SessionRun::approveAccessories() {
  RecoveryAgent& agent = *Platform::current().recoveryAgent;
  QSError error;
  if (session_.services->volumes->AutoSaveVolumeUUID()) {
    // Nobody is there to approve the disk that the session saves itself to.
    if (!agent.enableAutomaticApproval(&error)) {
      logToSystem(kLogError, "Failed to enable auto-approval of TRM devices for autosaving. %s",
                  orNull(error).c_str());
    }
  } else if (!agent.enableNotifications(&error)) {
    logToSystem(kLogError, "Failed to enable TRM notifications. %s", orNull(error).c_str());
  }
}

void SessionRun::findVolumes() {
  for (const PlanItem& item : collectionPlan()) {
    const auto* row = std::get_if<PlanRow>(&item);
    const auto* perVolume = row != nullptr ? std::get_if<PerVolume>(&row->source) : nullptr;
    if (perVolume == nullptr) continue;
    volumesByRole_[perVolume->role] =
        session_.services->volumes->VellumVolumeUUIDsRestrictedToRole(perVolume->role)
            .value_or(std::vector<std::string>());
  }
}

void SessionRun::endSession() {
  host_.endSession([this] {
    if (coDiagnose_) coDiagnose_->invalidate();
  });
  host_._dropInstallerShield();
}

bool SessionRun::holds(const PlanCondition& condition) const {
  const CollectionServices& services = *session_.services;
  switch (condition.hosts) {
    case PlanHosts::all:
      break;
    case PlanHosts::internal:
      if (!services.isVantorInternal()) return false;
      break;
    case PlanHosts::vantorSilicon:
      if (!services.isVantorSilicon()) return false;
      break;
    case PlanHosts::otherSilicon:
      if (services.isVantorSilicon()) return false;
      break;
  }
  return condition.existingPath.empty() ||
         Platform::current().fileSystem->exists(condition.existingPath);
}

void SessionRun::queue(const PlanRow& row, const Command& source) {
  host_._runJobAtPath(source.program, source.arguments, row.relativePath, isSensitive(row),
                      qosToQueue(row), session_.group, session_.uuid);
}

void SessionRun::queue(const PlanRow& row, const FileCopy& source) {
  queueCopy(row, source.path, row.relativePath);
}

void SessionRun::queue(const PlanRow& row, const LocatedFileCopy& source) {
  if (auto path = ((*session_.services->volumes).*source.locate)())
    queueCopy(row, std::move(*path), row.relativePath);
}

void SessionRun::queue(const PlanRow& row, const EntryCopies& source) {
  for (const std::string& name : Platform::current().fileSystem->entryNames(source.directory))
    queueCopy(row, joinedPath(source.directory, name), row.relativePath + fileNameText(name));
}

void SessionRun::queue(const PlanRow& row, const EntryReads& source) {
  for (const std::string& name : Platform::current().fileSystem->entryNames(source.directory)) {
    queueWork(row, wholeFileReadWork(joinedPath(source.directory, name)),
              row.relativePath + fileNameText(name));
  }
}

void SessionRun::queue(const PlanRow& row, const Work& source) {
  queueWork(row, source.make(source.source), row.relativePath);
}

void SessionRun::queue(const PlanRow& row, const Report& source) {
  queueWork(row, reportWork((*session_.services).*source.report), row.relativePath);
}

void SessionRun::queue(const PlanRow& row, const Producer& source) {
  source.produce(session_, row);
}

void SessionRun::queue(const PlanRow& row, const PerVolume& source) {
  for (const std::string& uuid : volumesByRole_[source.role]) {
    auto perform = [session = session_, uuid, collector = source.collector](
                       const std::optional<std::string>& mountPoint, bool didMount) {
      collector(session, uuid, mountPoint, didMount);
    };
    session_.services->volumes->EnsureVolumeIsMountedWithVolumeUUID(
        uuid, std::move(perform), /*performOnlyIfMountAvailable=*/true, session_.group,
        qosToQueue(row));
  }
}

void SessionRun::queue(const PlanRow& row, const CoDiagnoseArchive&) {
  if (coDiagnose_) queueCoDiagnoseArchive(session_, row, coDiagnose_);
}

void SessionRun::queueCopy(const PlanRow& row, std::string path, std::string relativePath) {
  host_._runJobCollectingFileAtPath(std::move(path), std::move(relativePath), isSensitive(row),
                                    qosToQueue(row), session_.group, session_.uuid);
}

void SessionRun::queueWork(const PlanRow& row, WorkBlock work, std::string relativePath) {
  host_._runJob(std::move(work), std::move(relativePath), isSensitive(row), qosToQueue(row),
                session_.group, session_.uuid);
}

}  // namespace

CollectionRunner::CollectionRunner(std::shared_ptr<const CollectionServices> services)
    : services_(std::move(services)) {}

void CollectionRunner::run(const QSUUID& sessionUUID,
                           const std::shared_ptr<CollectionHost>& host) const {
  SessionRun session({.uuid = sessionUUID.text(),
                      .group = Platform::current().workQueues->makeGroup(),
                      .host = host,
                      .services = services_},
                     *host);
  for (const PlanItem& item : collectionPlan())
    std::visit(session, item);
}

}  // namespace quillsift
