#pragma once

#include <optional>

#include "host/PropertyList.h"
#include "platform/QSData.h"
#include "platform/QSError.h"
#include "platform/SystemValue.h"

namespace quillsift {

// The value as a property list; a UUID as its text. None when it, or anything within it, is
// nothing.
std::optional<PropertyList> propertyListOf(const SystemValue& value);

// The machine's factory data as an XML property list. None when the system knows nothing of them;
// EINVAL (POSIX) when they are no property list.
std::optional<QSData> provenanceReportOfHost(QSError* error);

// What the companion processor says about itself as an XML property list. Properties that are no
// property list are left out. None without a companion, or when it says nothing about itself.
std::optional<QSData> companionPropertiesOfHost(QSError* error);

}  // namespace quillsift
