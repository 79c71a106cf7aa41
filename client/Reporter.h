#pragma once

#include <string>

#include "client/ExitCode.h"
#include "client/JobTable.h"
#include "client/JsonObject.h"
#include "client/QuillsiftService.h"
#include "client/SummaryReport.h"

namespace quillsift {

// One thing that happened: a name and details for programs, a line for people.
struct Notice {
  std::string event;
  std::string text;  // printable
  JsonObject details;
};

// Shows a command's course on standard output, and its failure on standard error.
class Reporter {
 public:
  virtual ~Reporter() = default;

  virtual void notice(const Notice& notice) = 0;
  // What was there before this command looked.
  virtual void jobsAtHand(const JobTable& table) = 0;
  virtual void jobChanged(const QSJobInfo& job) = 0;
  // How things stand now; as often as the caller likes.
  virtual void sessionProgress(const JobTable& table) = 0;
  virtual void saveProgress(const SaveReport& report) = 0;
  // Neither of the two above comes next.
  virtual void progressEnded() = 0;
  virtual void summary(const SummaryReport& report) = 0;
  // The command ends with this. Not for success.
  virtual void failure(const Ending& ending) = 0;

  // The errno of a failed write to standard output; 0 while all is well.
  virtual int outputError() const = 0;
};

}  // namespace quillsift
