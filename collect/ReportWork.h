#pragma once

#include "collect/CollectionServices.h"
#include "jobs/QSJob.h"

namespace quillsift {

// Captures a report. Fails, with the report's error if it has one, when there is nothing to tell.
WorkBlock reportWork(CollectionServices::Report report);

}  // namespace quillsift
