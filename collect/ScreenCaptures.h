#pragma once

#include "collect/CollectionSession.h"

namespace quillsift {

struct PlanRow;

// Asks for the active displays on the user-initiated queue, as a member of the session group, and
// queues one capture for each that mirrors no other. A picture is named after the display's place
// in the list, mirrors counted.
void queueScreenCaptures(const CollectionSession& session, const PlanRow& row);

}  // namespace quillsift
