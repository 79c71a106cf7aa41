#pragma once

#include "platform/ServiceConnections.h"

namespace quillsift {

// Name of the service endpoint, and the capability a peer must hold to be admitted.
inline constexpr const char* kServiceName = "io.vantor.quillsiftd";
inline constexpr const char* kServiceEntitlement = "io.vantor.private.quillsiftd";
// Where the daemon listens when the service manager passes no socket.
inline constexpr const char* kDefaultSocketPath = "/run/io.vantor.quillsiftd/socket";

// Names of the messages, as they stand on the wire.
namespace wire {
inline constexpr const char* kQueryJobStatusInformation = "queryJobStatusInformationWithReply";
inline constexpr const char* kStartQuillsift = "startQuillsift";
inline constexpr const char* kClearQuillsiftData = "clearQuillsiftData";
inline constexpr const char* kSaveQuillsift = "saveQuillsiftToDestination";

inline constexpr const char* kReportSaveProgress = "reportSaveProgress";
inline constexpr const char* kQuillsiftStarted = "quillsiftStarted";
inline constexpr const char* kQuillsiftDataCleared = "quillsiftDataCleared";
inline constexpr const char* kJobStatusChanged = "jobStatusChangedWithInfo";
}  // namespace wire

// What a client may ask of the daemon:
//   queryJobStatusInformationWithReply() -> (aa{sv} jobs, ad dateFinished)
//   startQuillsift() -> (b started)
//   clearQuillsiftData()
//   saveQuillsiftToDestination(s destination, b shouldArchive, b collectSensitiveFiles)
//     -> (b started)
// A job is a record of QSJobInfo's keys; the date is seconds since 1970, the array empty for none.
const WireInterface& serverProtocol();

// What the daemon tells its clients:
//   reportSaveProgress(d progress, x state, s path)
//   quillsiftStarted()
//   quillsiftDataCleared()
//   jobStatusChangedWithInfo(a{sv} info)
const WireInterface& clientProtocol();

}  // namespace quillsift
