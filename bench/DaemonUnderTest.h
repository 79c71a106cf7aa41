#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/RemoteService.h"

namespace quillsift {

// CPU a process and the children it has waited for have used, and what it holds.
struct ProcessUse {
  double cpuSeconds = 0;
  std::size_t residentBytes = 0;  // with what lies in memory files that nobody has mapped
  // Memory of its own: anonymous pages and memory files, also those of which nothing is resident.
  std::size_t ownBytes = 0;
};

// The built daemon in a scratch installation of its own, whose platform tree the benchmark fills.
// Every failure ends the benchmark.
class DaemonUnderTest {
 public:
  explicit DaemonUnderTest(const std::string& installedPrefix);
  ~DaemonUnderTest();
  DaemonUnderTest(const DaemonUnderTest&) = delete;
  DaemonUnderTest& operator=(const DaemonUnderTest&) = delete;

  // Before start: the program behind a plan path, or the content of a file of the plan.
  void putProgram(const std::string& planPath, const std::string& program) const;
  void putFile(const std::string& planPath, const std::string& content) const;
  // Before start: hides what the host has there.
  void hide(const std::string& planPath) const;
  void start();

  std::unique_ptr<RemoteService> connect() const;
  ProcessUse use() const;
  std::string path(const std::string& name) const { return directory_ + "/" + name; }

 private:
  std::string inTree(const std::string& planPath) const;

  std::string directory_;
  pid_t process_ = -1;
};

// The answer of a call that must not fail.
std::vector<WireValue> mustCall(RemoteService& service, const std::string& method,
                                const std::vector<WireValue>& arguments = {});
// Starts a session and waits for its end. / Saves it and waits until that is done.
void runSession(RemoteService& service);
enum class SaveForm { archive, directory };
void saveSession(RemoteService& service, const std::string& destination,
                 SaveForm form = SaveForm::archive);

double secondsNow();
double median(std::vector<double> values);
[[noreturn]] void fail(const std::string& what);

}  // namespace quillsift
