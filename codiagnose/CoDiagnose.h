#pragma once

#include <memory>
#include <string>

#include "platform/PipeHandles.h"
#include "platform/QSError.h"

namespace quillsift {

// A companion processor that makes a diagnostic archive of its own. Any thread.
class CoDiagnose {
 public:
  virtual ~CoDiagnose() = default;

  // Asks for an archive. False and `error` when one is under way or cannot be asked for.
  virtual bool startGatheringReturningError(QSError* error) = 0;
  // Ends the connection and closes the handle, for good. Never waits for the companion.
  virtual void invalidate() = 0;

  // File name of the archive; a default until the companion has named it.
  virtual std::string archiveName() = 0;
  // Whether the last transfer came in whole.
  virtual bool archiveValid() = 0;
  // Null before a start and after invalidate.
  virtual std::shared_ptr<PipeReadHandle> remoteDiagnosticHandle() = 0;
};

}  // namespace quillsift
