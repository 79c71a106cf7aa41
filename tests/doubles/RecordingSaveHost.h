#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "save/SaveHost.h"

namespace quillsift {

// Gives a save the jobs that the test lists and keeps its reports. One thread at a time.
class RecordingSaveHost : public SaveHost {
 public:
  struct Report {
    double progress;
    SaveProgressState state;
    std::string path;

    bool operator==(const Report&) const = default;
  };

  std::vector<std::shared_ptr<QSJob>> jobs;
  std::vector<Report> reports;
  int copies = 0;

  // Run, if given, before a copy is handed out and after a report is kept. They may throw.
  std::function<void()> onCopyJobs;
  std::function<void(const Report&)> onReport;

  std::vector<std::shared_ptr<QSJob>> copyJobs() override {
    ++copies;
    if (onCopyJobs) onCopyJobs();
    return jobs;
  }

  void reportSaveProgress(double progress, SaveProgressState state,
                          const std::string& path) override {
    reports.push_back({progress, state, path});
    if (onReport) onReport(reports.back());
  }
};

}  // namespace quillsift
