#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "jobs/QSJob.h"
#include "platform/QualityOfService.h"
#include "platform/WorkQueues.h"

namespace quillsift {

// What the collection plan needs of whoever owns the session. Any thread; none of these blocks for
// the length of a job, but endSession and what needs the session's lock meanwhile: they can take as
// long as the autosave does.
class CollectionHost {
 public:
  virtual ~CollectionHost() = default;

  // Each queues one job on the worker queue of its class, as a member of `group`. `uuid` is the
  // text of the session's UUID: a job of a session that is no longer current leaves no trace.
  virtual void _runJobAtPath(std::string path, std::vector<std::string> arguments,
                             std::string relativeFilePath, bool sensitive, QOSClass qos,
                             std::shared_ptr<WorkGroup> group, std::string uuid) = 0;
  virtual void _runJob(WorkBlock work, std::string relativeFilePath, bool sensitive, QOSClass qos,
                       std::shared_ptr<WorkGroup> group, std::string uuid) = 0;
  virtual void _runJobCollectingFileAtPath(std::string path, std::string relativeFilePath,
                                           bool sensitive, QOSClass qos,
                                           std::shared_ptr<WorkGroup> group, std::string uuid) = 0;

  // Remembers a mount point to be unmounted once the session's data are cleared.
  virtual void _unmountVolumeAtEndOfQuillsiftWithMountPoint(std::string mountPoint) = 0;
  // Tells every client, in order, that a session started; returns when all messages are queued.
  virtual void announceSessionStarted() = 0;
  // The end of a session under the variables lock: every job is stopped, `afterStop` is called,
  // the autosave runs and the end date is set.
  virtual void endSession(const std::function<void()>& afterStop) = 0;
  virtual void _dropInstallerShield() = 0;
};

}  // namespace quillsift
