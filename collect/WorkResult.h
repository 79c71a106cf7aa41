#pragma once

#include <memory>
#include <optional>
#include <utility>

#include "jobs/QSJobEntry.h"
#include "platform/QSData.h"

namespace quillsift {

// Hands out what a work block captured, if somebody wants it. The block's result: true.
inline bool giveEntry(std::shared_ptr<const QSJobEntry>* entry, std::optional<QSData> data) {
  if (entry != nullptr) *entry = std::make_shared<const QSJobEntry>(std::move(data));
  return true;
}

}  // namespace quillsift
