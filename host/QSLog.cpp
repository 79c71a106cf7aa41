#include "host/QSLog.h"

#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>

#include "host/SystemLogging.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr std::size_t kProcessPathLimit = 1024;  // bytes
constexpr const char* kUnknownProcessName = "Unknown_Quillsift_Process";

std::string processName() {
  const std::string path =
      Platform::current().hostInformation->executablePath(::getpid(), kProcessPathLimit);
  return path.empty() ? kUnknownProcessName : lastPathComponent(path);
}

// UTF-16 code units of a UTF-8 text; an invalid byte counts as one. Never more than its bytes.
std::size_t lengthInUTF16(std::string_view text) {
  std::size_t units = 0;
  for (const char c : validUTF8(text)) {
    const auto byte = static_cast<std::uint8_t>(c);
    const bool startsCharacter = (byte & 0xC0) != 0x80;
    const bool startsPair = byte >= 0xF0;
    units += startsCharacter ? (startsPair ? 2u : 1u) : 0u;
  }
  return units;
}

}  // namespace

void QSLog(int priority, int console, const char* format, ...) {
  (void)console;
  const int saved = errno;
  std::va_list arguments;
  va_start(arguments, format);
  const std::string message = formattedList(format, arguments);
  va_end(arguments);
  writeToSystemLog(priority, message);
  // The message is not formatted again: a percent sign in the process's name stays one.
  const std::string line =
      processName() + "[" + std::to_string(::getpid()) + "]: " + message + "\n";
  Platform::current().systemConsole->write(std::string_view(line).substr(0, lengthInUTF16(line)));
  errno = saved;
}

}  // namespace quillsift
