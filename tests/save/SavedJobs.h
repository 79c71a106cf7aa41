#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "jobs/QSJob.h"
#include "jobs/QSJobEntry.h"

namespace quillsift {

// What a file-copy job takes over from its source.
struct SourceFile {
  std::uint32_t accessMask = 0100644;
  std::uint32_t ownerID = 0;
  std::uint32_t groupID = 0;
  std::map<std::string, std::string> extendedAttributes = {};
};

// An entry with the metadata of such a file. Uses a file system of its own.
std::shared_ptr<const QSJobEntry> entryFrom(const SourceFile& source, const std::string& text);

// A job that has run and left this entry, or text, behind.
std::shared_ptr<QSJob> finishedJob(const std::string& path,
                                   std::shared_ptr<const QSJobEntry> entry);
std::shared_ptr<QSJob> finishedJob(const std::string& path, const std::string& text);

}  // namespace quillsift
