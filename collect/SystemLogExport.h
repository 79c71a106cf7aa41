#pragma once

#include "collect/CollectionSession.h"

namespace quillsift {

struct PlanRow;

// Exports the host's own log: one job for each file of the archive, queued while the file is at
// hand. Returns when the whole archive has been handed over.
void exportSystemLog(const CollectionSession& session, const PlanRow& row);

}  // namespace quillsift
