#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "collect/CollectionHost.h"
#include "platform/Mutex.h"

namespace quillsift {

// Writes down what the plan asks for and runs nothing: a job ends the moment it is queued, unless
// the test holds it. Any thread.
class RecordingCollectionHost : public CollectionHost {
 public:
  enum class Kind { command, copy, work };
  struct Job {
    Kind kind;
    std::string path;
    std::vector<std::string> arguments;
    WorkBlock work;
    std::string relativePath;
    bool sensitive;
    QOSClass qos;
    std::shared_ptr<WorkGroup> group;
    std::string uuid;
  };

  // The job of this relative path, once it is queued, stays a member of its group until finish.
  void hold(const std::string& relativePath) {
    MutexLock lock(mutex_);
    held_[relativePath] = nullptr;
  }
  void finish(const std::string& relativePath) {
    std::shared_ptr<WorkGroup> group;
    {
      MutexLock lock(mutex_);
      const auto found = held_.find(relativePath);
      if (found == held_.end()) return;
      group = found->second;
      held_.erase(found);
    }
    if (group) group->leave();
  }
  void finishAll() {
    std::map<std::string, std::shared_ptr<WorkGroup>> held;
    {
      MutexLock lock(mutex_);
      held.swap(held_);
    }
    for (const auto& [path, group] : held) {
      if (group) group->leave();
    }
  }

  // What happened, in order: "announce", "job <relative path>", "end", "ended", "shield",
  // "unmount <mount point>", and what other doubles of the test note.
  std::vector<std::string> events() const {
    MutexLock lock(mutex_);
    return events_;
  }
  void note(std::string event) {
    MutexLock lock(mutex_);
    events_.push_back(std::move(event));
  }

  std::vector<Job> jobs() const {
    MutexLock lock(mutex_);
    return jobs_;
  }
  // The first job of this relative path.
  std::optional<Job> job(const std::string& relativePath) const {
    MutexLock lock(mutex_);
    for (const Job& job : jobs_) {
      if (job.relativePath == relativePath) return job;
    }
    return std::nullopt;
  }
  // Lets go of what the work blocks hold.
  void forgetJobs() {
    std::vector<Job> jobs;
    MutexLock lock(mutex_);
    jobs.swap(jobs_);
  }

  void _runJobAtPath(std::string path, std::vector<std::string> arguments,
                     std::string relativeFilePath, bool sensitive, QOSClass qos,
                     std::shared_ptr<WorkGroup> group, std::string uuid) override {
    record({Kind::command, std::move(path), std::move(arguments), nullptr,
            std::move(relativeFilePath), sensitive, qos, std::move(group), std::move(uuid)});
  }
  void _runJob(WorkBlock work, std::string relativeFilePath, bool sensitive, QOSClass qos,
               std::shared_ptr<WorkGroup> group, std::string uuid) override {
    record({Kind::work,
            "",
            {},
            std::move(work),
            std::move(relativeFilePath),
            sensitive,
            qos,
            std::move(group),
            std::move(uuid)});
  }
  void _runJobCollectingFileAtPath(std::string path, std::string relativeFilePath, bool sensitive,
                                   QOSClass qos, std::shared_ptr<WorkGroup> group,
                                   std::string uuid) override {
    record({Kind::copy,
            std::move(path),
            {},
            nullptr,
            std::move(relativeFilePath),
            sensitive,
            qos,
            std::move(group),
            std::move(uuid)});
  }
  void _unmountVolumeAtEndOfQuillsiftWithMountPoint(std::string mountPoint) override {
    note("unmount " + mountPoint);
  }
  void announceSessionStarted() override { note("announce"); }
  void endSession(const std::function<void()>& afterStop) override {
    note("end");
    afterStop();
    note("ended");
  }
  void _dropInstallerShield() override { note("shield"); }

 private:
  void record(Job job) {
    MutexLock lock(mutex_);
    events_.push_back("job " + job.relativePath);
    const auto held = held_.find(job.relativePath);
    if (held != held_.end()) {
      job.group->enter();
      held->second = job.group;
    }
    jobs_.push_back(std::move(job));
  }

  mutable Mutex mutex_;
  std::map<std::string, std::shared_ptr<WorkGroup>> held_ QS_GUARDED_BY(mutex_);
  std::vector<std::string> events_ QS_GUARDED_BY(mutex_);
  std::vector<Job> jobs_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
