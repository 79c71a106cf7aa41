#pragma once

#include <string>

#include "jobs/QSJob.h"

namespace quillsift {

// Joins the rotated disk-management logs of a directory, oldest first: the files with a number as
// extension, the largest number first. The current log has none and stays where it is. Fails when
// there are none, or when one of them cannot be read.
WorkBlock diskManagementLogWork(const std::string& directory);

}  // namespace quillsift
