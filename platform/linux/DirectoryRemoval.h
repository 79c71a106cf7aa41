#pragma once

#include "platform/FileDescriptor.h"

namespace quillsift {

// Removes everything in a directory that is open for reading. Links are removed, never followed,
// and volumes mounted inside stay. Errors are ignored. Takes neither stack nor descriptors in
// proportion to the depth of the tree.
void emptyDirectory(FileDescriptor directory);

}  // namespace quillsift
