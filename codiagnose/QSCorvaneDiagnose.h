#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "codiagnose/CoDiagnose.h"
#include "platform/QSError.h"
#include "platform/RemoteMessages.h"
#include "platform/WorkQueues.h"

namespace quillsift {

// The remote-device service's number for the companion processor.
inline constexpr std::uint32_t kCompanionDeviceType = 3;
inline constexpr const char* kCompanionServiceName = "io.vantor.omnitrawl.remote";
// What an archive is called whose name the companion does not tell.
inline constexpr const char* kDefaultArchiveName = "corvane_omnitrawl_unknown.tar.gz";

// The archive of the Corvane companion, over the remote-device service. One instance serves one
// session. Every change of state happens on the service queue, and all readers go through it, so
// none of them may be called on it. Destruction, on any queue, invalidates.
class QSCorvaneDiagnose : public CoDiagnose,
                          public std::enable_shared_from_this<QSCorvaneDiagnose> {
 public:
  // Connected and idle. Null and `error` (QSCorvaneErrorDomain, codes 1 to 4) when there is no
  // companion, or none that offers the service.
  static std::shared_ptr<CoDiagnose> initReturningError(QSError* error);

  QSCorvaneDiagnose() = delete;
  ~QSCorvaneDiagnose() override;
  QSCorvaneDiagnose(const QSCorvaneDiagnose&) = delete;
  QSCorvaneDiagnose& operator=(const QSCorvaneDiagnose&) = delete;

  // Code 5 while a request is outstanding; code 0 when there is no pipe to be had. Not refused
  // after invalidate: there is nobody to ask then, and nothing arrives.
  bool startGatheringReturningError(QSError* error) override;
  void invalidate() override;

  bool gathering();
  bool invalidated();
  std::string archiveName() override;
  bool archiveValid() override;
  std::shared_ptr<PipeReadHandle> remoteDiagnosticHandle() override;

 private:
  explicit QSCorvaneDiagnose(std::shared_ptr<SerialQueue> serviceQueue);

  void connect(std::shared_ptr<RemoteConnection> connection);
  template <typename Value>
  Value onServiceQueue(Value QSCorvaneDiagnose::*property);

  // All on the service queue, or where no one else holds the object.
  void _invalidate();
  bool start(QSError* error);
  void handleRemoteEvent(const RemoteEvent& event);
  void _handleRemoteEventDictionary(const RemoteDictionary& response);
  void handleFailure(const RemoteDictionary& response);
  void handleArchive(const RemoteDictionary& response);
  void endTransfer(int error);

  const std::shared_ptr<SerialQueue> serviceQueue_;
  bool invalidated_ = false;
  bool gathering_ = false;
  bool archiveValid_ = false;
  std::string archiveName_ = kDefaultArchiveName;
  std::shared_ptr<PipeReadHandle> remoteDiagnosticHandle_;
  std::shared_ptr<PipeWriteHandle> remoteDiagnosticWriteHandle_;
  std::shared_ptr<RemoteConnection> serviceConnection_;
};

}  // namespace quillsift
