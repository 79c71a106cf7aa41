#include "jobs/QSJobEntry.h"

#include <utility>

#include "jobs/GroupDatabase.h"
#include "jobs/QSFileAttributes.h"

namespace quillsift {

namespace {

// Looked up once: a group that appears later is not seen by the running process.
std::uint32_t everyoneGroup() {
  static const std::uint32_t identifier = groupIdentifier("everyone").value_or(0);
  return identifier;
}

}  // namespace

QSJobEntry::QSJobEntry(std::optional<QSData> fileData)
    : fileGID_(everyoneGroup()), fileData_(std::move(fileData)) {}

QSJobEntry::QSJobEntry(std::optional<QSData> fileData, const QSFileAttributes& attributes)
    : QSJobEntry(std::move(fileData)) {
  _populateFileAttributes(attributes);
}

void QSJobEntry::_populateFileAttributes(const QSFileAttributes& attributes) {
  fileUID_ = attributes.fileUID();
  fileGID_ = attributes.fileGID();
  fileMode_ = static_cast<std::uint16_t>(attributes.fileAccessMask());
  extendedAttributes_ = attributes.extendedAttributes();
}

}  // namespace quillsift
