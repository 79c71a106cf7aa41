#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "daemon/QSServiceDaemon.h"
#include "daemon/protocol/QSServiceProtocols.h"
#include "tests/doubles/TestPlatform.h"

namespace quillsift {

inline constexpr const char* kEarlyProgram = "/usr/sbin/lsof";  // of the plan's first step
inline constexpr const char* kLateProgram = "/usr/sbin/drreg";  // of its last large one

// A daemon on a platform of doubles. Every program of the plan prints nothing and ends at once
// unless a test scripts it; no other source exists.
class DaemonFixture : public testing::Test {
 protected:
  DaemonFixture() {
    QSError error;
    EXPECT_TRUE(daemon_->startListening(&error)) << error.description();
    std::filesystem::create_directories(directory_);
  }
  ~DaemonFixture() override {
    platform_.processLauncher().releaseAll();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }

  std::shared_ptr<FakeServiceConnection> connect(pid_t process = 4242) {
    FakePeer peer;
    peer.processIdentifier = process;
    peer.entitlements[kServiceEntitlement] = true;
    auto admission = platform_.serviceConnections().connect(kServiceName, peer);
    EXPECT_TRUE(admission.accepted);
    return admission.connection;
  }

  bool start() {
    bool refused = true;
    daemon_->takeQuillsift(&refused);
    return !refused;
  }

  // Runs a whole session.
  void runSession() {
    ASSERT_TRUE(start());
    platform_.workQueues().drain();
  }

  // A session that hangs in its first step until `release`.
  void startHangingSession() {
    platform_.processLauncher().script(kEarlyProgram, {.output = "early", .hangs = true});
    ASSERT_TRUE(start());
    platform_.workQueues().waitForParked(1);
    while (!platform_.processLauncher().child(kEarlyProgram))
      std::this_thread::yield();
  }
  // Until `count` threads wait for the save lock.
  void waitForSaveWaiters(std::size_t count) {
    while (daemon_->quillsiftSaveLock().waiters() < count)
      std::this_thread::yield();
  }
  // Until the plan has come to its `count`th timed wait and stands in it.
  void waitForPlanWait(std::size_t count) {
    while (platform_.workQueues().waitLimits().size() < count)
      std::this_thread::yield();
    platform_.workQueues().waitForParked(1);
  }
  // Until the job of this path runs, so that it can be stopped. A child that has been started may
  // not be known to its job yet.
  void waitForRunningJob(const std::string& relativePath) {
    const auto runs = [&] {
      const auto jobs = daemon_->getCurrentJobInfosWithDate(nullptr);
      return std::any_of(jobs.begin(), jobs.end(), [&](const QSJobInfo& job) {
        return job.relativeFilePathAndName() == relativePath &&
               job.jobStatus() == static_cast<std::int64_t>(QSJobStatus::running);
      });
    };
    while (!runs())
      std::this_thread::yield();
  }
  void release() {
    platform_.processLauncher().child(kEarlyProgram)->finish(0);
    platform_.workQueues().drain();
  }

  std::vector<std::string> notificationNames(const FakeServiceConnection& connection) const {
    std::vector<std::string> names;
    for (const auto& message : connection.received()) {
      if (!message.isReply) names.push_back(message.name);
    }
    return names;
  }
  std::vector<std::string> withoutJobs(std::vector<std::string> names) const {
    std::erase(names, wire::kJobStatusChanged);
    return names;
  }
  std::string output(const std::string& name) const { return directory_ + "/" + name; }

  TestPlatform platform_;
  const std::shared_ptr<QSServiceDaemon> daemon_ = QSServiceDaemon::init();
  const std::string directory_ = testing::TempDir() + "quillsift-daemon-" + QSUUID::random().text();
};

}  // namespace quillsift
