#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/Mutex.h"
#include "platform/OutputFiles.h"

namespace quillsift {

// Works on the real file system, keeps a record of the calls in their order and fails on demand.
// Any thread.
class RecordingOutputFiles : public OutputFiles {
 public:
  struct Call {
    std::string operation;  // the member's name
    std::string path{};     // the path, or that from which a file is renamed
    std::string target{};   // of a rename
    int descriptor = -1;    // the first, for a rename
    int targetDescriptor = -1;
  };

  // The operation fails with this errno value and does nothing; 0 takes that back. A failing
  // `remove` leaves the file and is silent.
  void fail(const std::string& operation, int code);
  // Runs before each call, outside all locks.
  void onCall(std::function<void(const Call& call)> hook);
  std::vector<Call> calls() const;
  std::vector<std::string> operations() const;  // their names alone

  FileDescriptor openForWriting(const std::string& path) override;
  bool disableCaching(int descriptor) override;
  bool truncateAtPosition(int descriptor) override;
  bool flush(int descriptor) override;
  bool flushToMedium(int descriptor) override;
  bool leadsToFile(const std::string& path, int descriptor) override;
  bool renameAt(int fromDirectory, const std::string& from, int toDirectory,
                const std::string& to) override;
  bool flushDirectoryOf(const std::string& path) override;
  void remove(const std::string& path) override;

 private:
  // Records the call; false and errno when it is to fail.
  bool begin(Call call);

  mutable Mutex mutex_;
  std::map<std::string, int> failures_ QS_GUARDED_BY(mutex_);
  std::function<void(const Call&)> onCall_ QS_GUARDED_BY(mutex_);
  std::vector<Call> calls_ QS_GUARDED_BY(mutex_);
};

}  // namespace quillsift
