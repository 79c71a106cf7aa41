#include "tests/save/SavedJobs.h"

#include <stdexcept>
#include <utility>

#include "jobs/QSFileAttributes.h"
#include "tests/doubles/MemoryFileSystem.h"

namespace quillsift {

std::shared_ptr<const QSJobEntry> entryFrom(const SourceFile& source, const std::string& text) {
  MemoryFileSystem files;
  const auto file = files.addFile("/source", text);
  file->metadata.accessMask = source.accessMask;
  file->metadata.ownerID = source.ownerID;
  file->metadata.groupID = source.groupID;
  for (const auto& [name, value] : source.extendedAttributes)
    file->extendedAttributes[name] = QSData(value);
  QSError error;
  const auto attributes =
      QSFileAttributes::fileAttributesForHandle(files.open("/source", true), 0, &error);
  if (!attributes) throw std::runtime_error(error.description());
  return std::make_shared<QSJobEntry>(QSData(text), *attributes);
}

std::shared_ptr<QSJob> finishedJob(const std::string& path,
                                   std::shared_ptr<const QSJobEntry> entry) {
  auto job = std::make_shared<QSJob>(
      [entry = std::move(entry)](std::shared_ptr<const QSJobEntry>* result, QSError*) {
        *result = entry;
        return true;
      },
      path);
  job->beginSynchronousJob();
  return job;
}

std::shared_ptr<QSJob> finishedJob(const std::string& path, const std::string& text) {
  return finishedJob(path, std::make_shared<QSJobEntry>(QSData(text)));
}

}  // namespace quillsift
