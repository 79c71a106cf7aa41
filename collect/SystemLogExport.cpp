#include "collect/SystemLogExport.h"

#include <cerrno>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "collect/CollectionPlan.h"
#include "host/SystemLogging.h"
#include "jobs/QSFileAttributes.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr LogKindLimits kLimits{.size = 10485760, .age = 36000};

// Reads a member while the builder keeps its descriptor open; null when it cannot be read.
std::shared_ptr<const QSJobEntry> readMember(const std::shared_ptr<FileHandle>& handle,
                                             const char* path) {
  QSError error;
  const auto attributes = QSFileAttributes::fileAttributesForHandle(handle, 0, &error);
  if (!attributes) {
    logToSystem(kLogError,
                "Failed to construct QSFileAttributes for (%s) from LogArchiveBuild file "
                "descriptor. %s",
                path, orNull(error).c_str());
    return nullptr;
  }
  auto data = attributes->readFileReturningDataWithError(&error);
  if (!data) {
    logToSystem(kLogError, "Failed to read (%s) from LogArchiveBuild file descriptor. %s", path,
                orNull(error).c_str());
    return nullptr;
  }
  return std::make_shared<const QSJobEntry>(std::move(data), *attributes);
}

// The builder's file callback: 0, or an errno value that ends the export.
int queueMember(const CollectionSession& session, const PlanRow& row, int descriptor,
                const char* path) {
  const std::shared_ptr<FileHandle> handle =
      Platform::current().fileSystem->adopt(descriptor, /*closeOnRelease=*/false);
  FileMetadata metadata;
  if (!handle || !handle->readMetadata(&metadata)) {
    const int code = errno;
    logToSystem(kLogError, "Failed to fstat file descriptor from LogArchiveBuild: %s",
                systemErrorText(code).c_str());
    return code;
  }
  if (std::string_view(path) == "." || metadata.objectType == kDirectoryType) return 0;

  auto ready = readMember(handle, path);
  if (!ready) return EINVAL;
  const auto host = session.host.lock();
  if (!host) return 0;
  host->_runJob(
      [ready = std::move(ready)](std::shared_ptr<const QSJobEntry>* entry, QSError*) {
        if (entry != nullptr) *entry = ready;
        return true;
      },
      joinedPath(row.relativePath, validUTF8(path)), isSensitive(row), qosToQueue(row),
      session.group, session.uuid);
  return 0;
}

}  // namespace

void exportSystemLog(const CollectionSession& session, const PlanRow& row) {
  const auto warning = [](const char* text) {
    logToSystem(kLogWarning, "Warning from LogArchiveBuild: %s", text);
  };
  const auto member = [&](int descriptor, const char* path) {
    return queueMember(session, row, descriptor, path);
  };
  const int result = Platform::current().logArchiveBuilder->build(
      {{"persist", kLimits}, {"special", kLimits}, {"signpost", kLimits}, {"highvolume", kLimits}},
      warning, member);
  if (result != 0)
    logToSystem(kLogWarning,
                "Failed to gather Syslore archive, LogArchiveBuild returned an error.");
}

}  // namespace quillsift
