#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "platform/HostInformation.h"
#include "platform/linux/PlatformTree.h"

namespace quillsift {

// Facts about the host from /proc, /sys and os-release.
//
// System controls: the value of "a.b" is the content of /proc/sys/a/b, byte for byte. "hw.model" is
// text with a terminator, made fit for a file name: of /proc/sys/hw/model (which only a platform
// tree has), else the firmware's product name, else the device tree's model. Nothing can be set
// (EPERM), but "kern.preoslog", which is asked for its size that way, takes a new value and ignores
// it. Its value too is a file that only a platform tree has, else what firmwareLogRing finds. On
// failure nothing is written to the caller's buffer.
class LinuxHostInformation : public HostInformation {
 public:
  explicit LinuxHostInformation(std::shared_ptr<const PlatformTree> tree);

  int systemControl(const char* name, void* out, std::size_t* outLength, const void* newValue,
                    std::size_t newLength) override;
  // The build is os-release's BUILD_ID, else its IMAGE_VERSION.
  std::optional<std::map<std::string, std::string>> systemVersion() override;
  // Knows kProvenanceReportKey (ProvenanceReport.h).
  std::optional<SystemValue> systemAnswer(const std::string& key) override;
  // VARIANT_ID=internal in os-release, for every subsystem.
  bool carriesInternalContent(const std::string& subsystem) override;
  // Whether the kernel runs on another architecture than this program was compiled for.
  bool runsTranslated() override;
  int realTime(timespec* out) override;
  std::string executablePath(pid_t process, std::size_t limit) override;

 private:
  // Whole content of a file; none with errno set on failure.
  std::optional<std::string> contentOf(const std::string& path) const;
  std::optional<std::string> hardwareModel() const;
  std::optional<std::string> controlValue(const std::string& name) const;

  const std::shared_ptr<const PlatformTree> tree_;
};

}  // namespace quillsift
