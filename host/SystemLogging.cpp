#include "host/SystemLogging.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "platform/Platform.h"

namespace quillsift {

void logToSystem(int level, const char* format, ...) {
  const int saved = errno;
  std::va_list arguments;
  va_start(arguments, format);
  const std::string message = formattedList(format, arguments);
  va_end(arguments);
  writeToSystemLog(level, message);
  errno = saved;
}

void writeToSystemLog(int level, const std::string& message) {
  const int saved = errno;
  Platform::current().systemLog->write(kInstallFacility | level, message);
  errno = saved;
}

std::string formattedList(const char* format, std::va_list arguments) {
  char* text = nullptr;
  const int length = ::vasprintf(&text, format, arguments);
  if (length < 0) return format;
  std::string result(text, static_cast<std::size_t>(length));
  std::free(text);
  return result;
}

}  // namespace quillsift
