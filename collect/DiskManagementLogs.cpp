#include "collect/DiskManagementLogs.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "collect/WorkResult.h"
#include "host/SystemLogging.h"
#include "platform/Platform.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

struct RotatedLog {
  std::string path;
  std::int64_t number;
};

// The number at the start of `text`: blanks, a sign, digits, and whatever follows. Saturates.
std::optional<std::int64_t> leadingNumber(std::string_view text) {
  const std::size_t start = std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size());
  text.remove_prefix(start);
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  const std::string_view digits = text.substr(0, text.find_first_not_of("0123456789"));
  if (digits.empty()) return std::nullopt;
  std::int64_t number = 0;
  for (const char digit : digits) {
    const int value = negative ? '0' - digit : digit - '0';
    if (__builtin_mul_overflow(number, 10, &number) ||
        __builtin_add_overflow(number, value, &number)) {
      return negative ? std::numeric_limits<std::int64_t>::min()
                      : std::numeric_limits<std::int64_t>::max();
    }
  }
  return number;
}

std::vector<RotatedLog> rotatedLogs(const std::string& directory) {
  FileSystem& files = *Platform::current().fileSystem;
  std::vector<RotatedLog> logs;
  for (const std::string& name : files.entryNames(directory)) {
    if (name.starts_with('.')) continue;
    std::string path = directory + name;
    if (files.isDirectory(path)) continue;
    if (const auto number = leadingNumber(pathExtension(name)))
      logs.push_back({std::move(path), *number});
  }
  std::stable_sort(logs.begin(), logs.end(), [](const RotatedLog& first, const RotatedLog& second) {
    return first.number > second.number;
  });
  return logs;
}

std::optional<QSData> joined(const std::vector<RotatedLog>& logs, QSError* error) {
  std::vector<std::byte> buffer;
  for (const RotatedLog& log : logs) {
    QSError readError;
    const auto data = Platform::current().fileSystem->readWholeFile(log.path, &readError);
    if (!data) {
      logToSystem(kLogWarning, "Failed to read %s into an internal DataBlob. %s", log.path.c_str(),
                  orNull(readError).c_str());
      setError(error, readError);
      return std::nullopt;
    }
    buffer.insert(buffer.end(), data->bytes().begin(), data->bytes().end());
  }
  return QSData(std::move(buffer));
}

}  // namespace

WorkBlock diskManagementLogWork(const std::string& directory) {
  return [directory](std::shared_ptr<const QSJobEntry>* entry, QSError* error) {
    const std::vector<RotatedLog> logs = rotatedLogs(directory);
    if (logs.empty()) {
      logToSystem(kLogInfo,
                  "There are no STW log files in the STW RAMDisk to copy back to the target.");
      return false;
    }
    auto data = joined(logs, error);
    if (!data || data->length() == 0 || entry == nullptr) return false;
    return giveEntry(entry, std::move(data));
  };
}

}  // namespace quillsift
