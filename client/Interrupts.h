#pragma once

#include "platform/QSError.h"

namespace quillsift {

// Turns the wish to leave (Ctrl-C, a hang-up, a request to terminate) into a descriptor that can be
// waited for, so that the program ends by its own road and can say how to come back. A second
// Ctrl-C ends it at once.
class Interrupts {
 public:
  Interrupts() = delete;

  // Takes the signals over, for the life of the process. -1 and `error` on failure; else the
  // descriptor, which can be read from the first signal on and is never emptied. Once.
  static int install(QSError* error);
};

}  // namespace quillsift
