#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "platform/QSData.h"

namespace quillsift {

class QSFileAttributes;

// What a job captured: the bytes that become one file of the saved output, with the metadata that
// file gets. Immutable.
class QSJobEntry {
 public:
  // Mode 0644, owner root, the group "everyone" (0 on a host without it), no attributes. `fileData`
  // may be absent: an entry without data is left out of a save like one with empty data.
  explicit QSJobEntry(std::optional<QSData> fileData);
  // Owner, group, permissions and extended attributes of a source file.
  QSJobEntry(std::optional<QSData> fileData, const QSFileAttributes& attributes);

  const std::optional<QSData>& fileData() const { return fileData_; }
  std::uint16_t fileMode() const { return fileMode_; }  // permission bits, no file type
  std::uint32_t fileUID() const { return fileUID_; }
  std::uint32_t fileGID() const { return fileGID_; }
  const std::map<std::string, QSData>& extendedAttributes() const { return extendedAttributes_; }

  // Bytes of data, 0 without any.
  std::uint64_t length() const { return fileData_ ? fileData_->length() : 0; }

 private:
  void _populateFileAttributes(const QSFileAttributes& attributes);

  std::uint16_t fileMode_ = 0644;
  std::uint32_t fileUID_ = 0;
  std::uint32_t fileGID_ = 0;
  std::optional<QSData> fileData_;
  std::map<std::string, QSData> extendedAttributes_;
};

}  // namespace quillsift
