#include "platform/linux/JournalReader.h"

#include <fcntl.h>
#include <systemd/sd-journal.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "platform/Text.h"
#include "platform/linux/JournalEntryText.h"

namespace quillsift {

namespace {

constexpr std::string_view kBootField = "_BOOT_ID=";
constexpr std::string_view kTransportField = "_TRANSPORT=";
constexpr std::string_view kPriorityField = "PRIORITY=";

// Opens copies of the descriptors: a journal closes what it was opened with.
int openFiles(const std::vector<int>& descriptors, sd_journal** journal) {
  std::vector<FileDescriptor> copies;
  std::vector<int> numbers;
  for (const int descriptor : descriptors) {
    copies.emplace_back(::fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
    if (!copies.back().valid()) return -errno;
    numbers.push_back(copies.back().get());
  }
  const int result =
      ::sd_journal_open_files_fd(journal, numbers.data(), static_cast<unsigned>(numbers.size()), 0);
  if (result < 0) return result;
  for (FileDescriptor& copy : copies)
    (void)copy.release();
  return result;
}

void appendBoot(const std::array<std::uint8_t, 16>& boot, std::string* text) {
  constexpr char kDigits[] = "0123456789abcdef";
  for (const std::uint8_t byte : boot) {
    *text += kDigits[byte >> 4];
    *text += kDigits[byte & 15];
  }
}

}  // namespace

int JournalReader::whyUnreadable(const JournalFile& file) {
  sd_journal* journal = nullptr;
  const int result = openFiles({file.descriptor.get()}, &journal);
  ::sd_journal_close(journal);
  return result < 0 ? -result : 0;
}

std::unique_ptr<JournalReader> JournalReader::open(const std::vector<JournalFile>& files,
                                                   std::size_t longestField, int* code) {
  std::vector<int> descriptors;
  descriptors.reserve(files.size());
  for (const JournalFile& file : files)
    descriptors.push_back(file.descriptor.get());
  sd_journal* journal = nullptr;
  int result = openFiles(descriptors, &journal);
  if (result >= 0) result = ::sd_journal_set_data_threshold(journal, longestField + 1);
  if (result >= 0) result = ::sd_journal_seek_tail(journal);
  *code = result < 0 ? -result : 0;
  if (result >= 0) return std::unique_ptr<JournalReader>(new JournalReader(journal));
  ::sd_journal_close(journal);
  return nullptr;
}

JournalReader::~JournalReader() {
  ::sd_journal_close(journal_);
}

int JournalReader::previous() {
  return ::sd_journal_previous(journal_);
}

bool JournalReader::read(JournalEntry* entry) {
  entry->transport.clear();
  entry->priority.reset();
  entry->text.clear();
  if (!readStamps(entry)) return false;
  readFields(entry);
  entry->text += '\n';
  return true;
}

bool JournalReader::readStamps(JournalEntry* entry) {
  sd_id128_t boot{};
  char* cursor = nullptr;
  if (::sd_journal_get_realtime_usec(journal_, &entry->realTime) < 0 ||
      ::sd_journal_get_monotonic_usec(journal_, &entry->sinceBoot, &boot) < 0 ||
      ::sd_journal_get_cursor(journal_, &cursor) < 0) {
    return false;
  }
  std::memcpy(entry->boot.data(), boot.bytes, entry->boot.size());
  std::string& text = entry->text;
  text.append("__CURSOR=").append(cursor);
  std::free(cursor);
  text.append("\n__REALTIME_TIMESTAMP=").append(std::to_string(entry->realTime));
  text.append("\n__MONOTONIC_TIMESTAMP=").append(std::to_string(entry->sinceBoot));
  text.append("\n").append(kBootField);
  appendBoot(entry->boot, &text);
  text += '\n';
  return true;
}

void JournalReader::readFields(JournalEntry* entry) {
  const void* data = nullptr;
  std::size_t length = 0;
  ::sd_journal_restart_data(journal_);
  while (::sd_journal_enumerate_available_data(journal_, &data, &length) > 0) {
    const std::string_view field(static_cast<const char*>(data), length);
    if (field.starts_with(kBootField)) continue;  // stands there already
    if (field.starts_with(kTransportField)) {
      entry->transport = field.substr(kTransportField.size());
    } else if (field.starts_with(kPriorityField) && field.size() == kPriorityField.size() + 1 &&
               field.back() >= '0' && field.back() <= '7') {
      entry->priority = field.back() - '0';
    }
    appendJournalField(field, &entry->text);
  }
}

}  // namespace quillsift
