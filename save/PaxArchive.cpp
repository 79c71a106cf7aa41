#include "save/PaxArchive.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <limits>

#include "jobs/QSTime.h"
#include "platform/Text.h"

namespace quillsift {

namespace {

constexpr std::size_t kBlockSize = 256 * 1024;
constexpr mode_t kPermissionBits = 07777;

struct EntryReleaser {
  void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};
using Entry = std::unique_ptr<archive_entry, EntryReleaser>;

void setTimes(archive_entry* entry, const QSDate& dateFinished) {
  const timespec born = QSTime(dateFinished).timeSpec();
  const time_t latest = std::numeric_limits<time_t>::max();
  archive_entry_set_birthtime(entry, born.tv_sec, born.tv_nsec);
  archive_entry_set_mtime(entry, born.tv_sec < latest ? born.tv_sec + 1 : latest, born.tv_nsec);
}

Entry madeEntry(const std::string& path, const QSJobEntry& content,
                const std::optional<QSDate>& dateFinished) {
  Entry entry(archive_entry_new());
  if (!entry) return nullptr;
  // Not the setter that takes UTF-8: it composes characters, so the name would not stay as it is.
  archive_entry_set_pathname(entry.get(), validUTF8(path).c_str());
  archive_entry_set_size(entry.get(), static_cast<std::int64_t>(content.length()));
  archive_entry_set_filetype(entry.get(), AE_IFREG);
  archive_entry_set_mode(entry.get(), S_IFREG | (content.fileMode() & kPermissionBits));
  archive_entry_set_uid(entry.get(), content.fileUID());
  archive_entry_set_gid(entry.get(), content.fileGID());
  for (const auto& [name, value] : content.extendedAttributes())
    archive_entry_xattr_add_entry(entry.get(), name.c_str(), value.bytes().data(), value.length());
  // Also false for a date that is no number.
  if (dateFinished && dateFinished->secondsSince1970 >= 0) setTimes(entry.get(), *dateFinished);
  return entry;
}

}  // namespace

void PaxArchive::Releaser::operator()(archive* archive) const {
  archive_write_free(archive);
}

PaxArchive::PaxArchive() : block_(kBlockSize) {}

PaxArchive::~PaxArchive() = default;

bool PaxArchive::openOnDescriptor(int descriptor) {
  archive_.reset(archive_write_new());
  return archive_ && archive_write_set_format_pax(archive_.get()) == ARCHIVE_OK &&
         archive_write_add_filter_gzip(archive_.get()) == ARCHIVE_OK &&
         archive_write_set_options(archive_.get(), "compression-level=9") == ARCHIVE_OK &&
         archive_write_open_fd(archive_.get(), descriptor) == ARCHIVE_OK;
}

bool PaxArchive::addMember(const std::string& path, const QSJobEntry& entry,
                           const std::optional<QSDate>& dateFinished) {
  const Entry header = madeEntry(path, entry, dateFinished);
  if (!header || archive_write_header(archive_.get(), header.get()) != ARCHIVE_OK) return false;
  return !entry.fileData() || writeData(entry.fileData()->bytes());
}

// Each byte is read once, into memory of our own. The compressor reads its input twice, for the
// check sum and for the data; a mapped log file that changes in between would break the whole
// archive. The library also takes no more than 2 GiB at once.
bool PaxArchive::writeData(std::span<const std::byte> data) {
  while (!data.empty()) {
    const auto part = data.first(std::min(data.size(), block_.size()));
    std::copy(part.begin(), part.end(), block_.begin());
    const la_ssize_t written = archive_write_data(archive_.get(), block_.data(), part.size());
    if (written < 0 || static_cast<std::size_t>(written) != part.size()) return false;
    data = data.subspan(part.size());
  }
  return true;
}

bool PaxArchive::close() {
  return archive_write_close(archive_.get()) == ARCHIVE_OK;
}

std::string PaxArchive::errorText() const {
  if (!archive_) return "Out of memory";
  const char* const what = archive_error_string(archive_.get());
  const int number = archive_errno(archive_.get());
  std::string text = what ? what : "Failed";
  if (number > 0) text += ": " + systemErrorText(number);
  return text;
}

}  // namespace quillsift
