#pragma once

#include <memory>

#include "codiagnose/CoDiagnose.h"
#include "collect/CollectionSession.h"

namespace quillsift {

struct PlanRow;

// Reads the companion's archive to its end on a queue of its own, as a member of the session group,
// and then queues the job that stores it, in a group of its own. The companion is held until that
// job is queued; the job itself holds it weakly.
void queueCoDiagnoseArchive(const CollectionSession& session, const PlanRow& row,
                            std::shared_ptr<CoDiagnose> coDiagnose);

}  // namespace quillsift
