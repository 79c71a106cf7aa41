#include "save/ArchiveWriter.h"

#include <cerrno>
#include <exception>
#include <memory>
#include <utility>
#include <vector>

#include "jobs/QSJob.h"
#include "platform/FileDescriptor.h"
#include "platform/Platform.h"
#include "platform/Text.h"
#include "save/PaxArchive.h"
#include "save/SavePaths.h"
#include "save/SaveProgress.h"

namespace quillsift {

namespace {

// Stands where a rename takes its target directory. Without effect, since paths are absolute; a
// relative one fails there.
constexpr int kTargetDirectory = 4;

// Errors of a flush that mean lost data, not a file that cannot be flushed.
bool meansLostData(int number) {
  return number == EIO || number == ENOSPC || number == EDQUOT;
}

class ArchiveSave {
 public:
  ArchiveSave(const std::string& destination, bool collectSensitiveFiles, SaveHost& host)
      : paths_(destination), collectSensitiveFiles_(collectSensitiveFiles), host_(host) {}

  bool run() {
    try {
      if (writeTemporaryFile() && moveIntoPlace()) flushInPlace();
    } catch (const std::exception& exception) {
      discard();  // first, since a log line takes memory
      logError(formatted("Failed to save archive: %s. %s", paths_.final.c_str(), exception.what()));
    }
    discard();
    // Once it has its name the archive is complete, whatever happens after that.
    if (moved_) {
      report(1.0, SaveProgressState::finished, paths_.final);
    } else {
      report(kSaveFailedProgress, SaveProgressState::failed, paths_.temporary);
    }
    return moved_;
  }

 private:
  // Writes, completes and flushes the archive under its temporary name.
  bool writeTemporaryFile() {
    report(0.0, SaveProgressState::started, paths_.temporary);
    descriptor_ = files_.openForWriting(paths_.temporary);
    if (!descriptor_.valid()) return false;
    removeTemporaryFile_ = true;
    if (!files_.disableCaching(descriptor_.get()))
      logError(formatted("Failed to set F_NOCACHE on: %s", paths_.temporary.c_str()));
    return writeArchiveToDescriptor() && completeTemporaryFile();
  }

  bool writeArchiveToDescriptor() {
    PaxArchive archive;
    if (!archive.openOnDescriptor(descriptor_.get())) {
      // The one failure that leaves the file behind: not a byte of it was touched.
      removeTemporaryFile_ = false;
      logFailure("Failed to open archive on", archive.errorText());
      return false;
    }
    if (!addJobs(archive)) return false;
    report(1.0, SaveProgressState::progress, paths_.temporary);
    if (!archive.close()) {
      logFailure("Failed to close archive on", archive.errorText());
      return false;
    }
    return true;
  }

  bool addJobs(PaxArchive& archive) {
    const std::vector<std::shared_ptr<QSJob>> jobs = host_.copyJobs();
    for (std::size_t index = 0; index < jobs.size(); ++index) {
      report(archiveSaveProgress(index, jobs.size()), SaveProgressState::progress,
             paths_.temporary);
      if (!addJob(archive, *jobs[index])) return false;
    }
    return true;
  }

  bool addJob(PaxArchive& archive, const QSJob& job) {
    if (!collectSensitiveFiles_ && job.sensitive()) return true;
    // Taken once: a late job may still be running and replace it.
    const std::shared_ptr<const QSJobEntry> entry = job.resultEntry();
    if (!entry || entry->length() == 0) return true;
    if (archive.addMember(job.relativeFilePathAndName(), *entry, job.dateFinished())) return true;
    logError(formatted("Failed to archive file for individual job:%s withLength:%lu",
                       job.relativeFilePathAndName().c_str(), entry->length()));
    return false;
  }

  bool completeTemporaryFile() {
    // A longer file of an earlier attempt was written over; what is left of it goes only now.
    if (!files_.truncateAtPosition(descriptor_.get())) {
      logFailure("Failed to truncate", systemErrorText(errno));
      return false;
    }
    if (!files_.flush(descriptor_.get()) && meansLostData(errno)) {
      logFailure("Failed to flush", systemErrorText(errno));
      return false;
    }
    return true;
  }

  bool moveIntoPlace() {
    const int archive = descriptor_.get();
    if (!files_.leadsToFile(paths_.temporary, archive) ||
        !files_.renameAt(archive, paths_.temporary, kTargetDirectory, paths_.final)) {
      const std::string reason = systemErrorText(errno);
      logError(formatted("Failed to renameat '%s' to '%s'. %s", paths_.temporary.c_str(),
                         paths_.final.c_str(), reason.c_str()));
      return false;
    }
    removeTemporaryFile_ = false;
    moved_ = true;
    return true;
  }

  void flushInPlace() {
    const int archive = descriptor_.get();
    if (!files_.flush(archive))
      logError(formatted("Failed to invoke fsync(%d) on: %s", archive, paths_.final.c_str()));
    if (!files_.flushToMedium(archive))
      logError(formatted("Failed to invoke F_FULLFSYNC(%d) on: %s", archive, paths_.final.c_str()));
    if (!files_.flushDirectoryOf(paths_.final))
      logError(formatted("Failed to flush directory of: %s", paths_.final.c_str()));
  }

  void discard() {
    // What somebody else has put in our file's place is not ours to remove.
    if (std::exchange(removeTemporaryFile_, false) &&
        files_.leadsToFile(paths_.temporary, descriptor_.get())) {
      files_.remove(paths_.temporary);
    }
    descriptor_.reset();
  }

  void report(double progress, SaveProgressState state, const std::string& path) {
    host_.reportSaveProgress(progress, state, path);
  }

  void logFailure(const char* what, const std::string& reason) {
    logError(formatted("%s: %s. %s", what, paths_.temporary.c_str(), reason.c_str()));
  }

  void logError(const std::string& message) {
    Platform::current().systemLog->write(kInstallFacility | kLogError, message);
  }

  const SavePaths paths_;
  const bool collectSensitiveFiles_;
  SaveHost& host_;
  OutputFiles& files_ = *Platform::current().outputFiles;
  FileDescriptor descriptor_;
  bool removeTemporaryFile_ = false;
  bool moved_ = false;
};

}  // namespace

bool writeArchive(const std::string& destination, bool collectSensitiveFiles, SaveHost& host) {
  return ArchiveSave(destination, collectSensitiveFiles, host).run();
}

}  // namespace quillsift
