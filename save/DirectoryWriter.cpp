#include "save/DirectoryWriter.h"

#include <cerrno>
#include <exception>
#include <memory>
#include <vector>

#include "jobs/QSJob.h"
#include "platform/OutputTrees.h"
#include "platform/Platform.h"
#include "platform/Text.h"
#include "save/SavePaths.h"
#include "save/SaveProgress.h"

namespace quillsift {

namespace {

OutputFileAttributes attributesOf(const QSJobEntry& entry) {
  constexpr std::uint16_t kPermissionBits = 07777;
  return {.mode = static_cast<std::uint16_t>(entry.fileMode() & kPermissionBits),
          .ownerID = entry.fileUID(),
          .groupID = entry.fileGID(),
          .extendedAttributes = entry.extendedAttributes()};
}

class DirectorySave {
 public:
  DirectorySave(const std::string& destination, bool collectSensitiveFiles, SaveHost& host)
      : destination_(destination), collectSensitiveFiles_(collectSensitiveFiles), host_(host) {}

  bool run() {
    bool complete = false;
    try {
      report(0.0, SaveProgressState::started);
      complete = makeDestination() && writeJobs();
    } catch (const std::exception& exception) {
      discard();  // first, since a log line takes memory
      logError(
          formatted("Failed to save directory: %s. %s", destination_.c_str(), exception.what()));
    }
    // A complete tree stays, whatever happens after that.
    if (complete) {
      report(1.0, SaveProgressState::finished);
    } else {
      discard();
      report(kSaveFailedProgress, SaveProgressState::failed);
    }
    return complete;
  }

 private:
  bool makeDestination() {
    tree_ = Platform::current().outputTrees->makeDirectory(destination_);
    if (tree_) return true;
    logError(formatted("Failed to create quillsift directory at %s error: %s", destination_.c_str(),
                       errnoDescription(destination_).c_str()));
    return false;
  }

  bool writeJobs() {
    const std::vector<std::shared_ptr<QSJob>> jobs = host_.copyJobs();
    for (std::size_t index = 0; index < jobs.size(); ++index) {
      report(directorySaveProgress(index, jobs.size()), SaveProgressState::progress);
      if (!writeJob(*jobs[index])) return false;
    }
    return true;
  }

  bool writeJob(const QSJob& job) {
    if (!collectSensitiveFiles_ && job.sensitive()) return true;
    // Taken once: a late job may still be running and replace it.
    const std::shared_ptr<const QSJobEntry> entry = job.resultEntry();
    if (!entry || entry->length() == 0) return true;
    const std::optional<std::string> target =
        pathInside(destination_, job.relativeFilePathAndName());
    if (!target) {
      errno = EINVAL;
      return writeFailed(job, entry->length());
    }
    const std::string inside = target->substr(joinedPath(destination_, "").size());
    if (!tree_->makeParentOf(inside)) return parentFailed(*target);
    return tree_->writeFile(inside, entry->fileData()->bytes(), attributesOf(*entry)) ||
           writeFailed(job, entry->length());
  }

  bool parentFailed(const std::string& target) {
    const std::string parent = target.substr(0, target.rfind('/'));
    logError(formatted("Failed to create sub-directory at %s error: %s", parent.c_str(),
                       errnoDescription(parent).c_str()));
    return false;
  }

  bool writeFailed(const QSJob& job, std::uint64_t length) {
    const std::string& path = job.relativeFilePathAndName();
    const std::string reason = errnoDescription(joinedPath(destination_, path));
    logError(formatted("Failed to save file for individual job:%s withLength:%lu error: %s",
                       path.c_str(), length, reason.c_str()));
    return false;
  }

  // The last failure as the error of a path.
  static std::string errnoDescription(const std::string& path) {
    return QSError::posix(errno, path).description();
  }

  void discard() {
    if (tree_) tree_->removeWithEverything();
    tree_.reset();
  }

  void report(double progress, SaveProgressState state) {
    host_.reportSaveProgress(progress, state, destination_);
  }

  void logError(const std::string& message) {
    Platform::current().systemLog->write(kInstallFacility | kLogError, message);
  }

  const std::string destination_;
  const bool collectSensitiveFiles_;
  SaveHost& host_;
  std::unique_ptr<OutputTree> tree_;  // once it is made
};

}  // namespace

bool writeDirectory(const std::string& destination, bool collectSensitiveFiles, SaveHost& host) {
  return DirectorySave(destination, collectSensitiveFiles, host).run();
}

}  // namespace quillsift
