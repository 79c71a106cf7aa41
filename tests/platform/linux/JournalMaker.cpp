#include "tests/platform/linux/JournalMaker.h"

#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "platform/linux/FileReading.h"
#include "platform/linux/JournalEntryText.h"
#include "tests/platform/linux/RunningProgram.h"

namespace quillsift {

namespace {

constexpr const char* kImporter = "/lib/systemd/systemd-journal-remote";

}  // namespace

std::uint64_t realTimeNow() {
  return static_cast<std::uint64_t>(::time(nullptr));
}

MadeEntry message(const std::string& text, const std::string& transport, std::uint64_t secondsOld,
                  std::vector<std::pair<std::string, std::string>> more) {
  MadeEntry entry{.realTime = (realTimeNow() - secondsOld) * 1'000'000,
                  .sinceBoot = (1'000'000 - secondsOld) * 1'000'000};
  entry.fields = {{"_TRANSPORT", transport}, {"MESSAGE", text}};
  entry.fields.insert(entry.fields.end(), more.begin(), more.end());
  return entry;
}

std::string exportText(const std::vector<MadeEntry>& entries) {
  std::string text;
  for (const MadeEntry& entry : entries) {
    text += "__REALTIME_TIMESTAMP=" + std::to_string(entry.realTime) + "\n";
    text += "__MONOTONIC_TIMESTAMP=" + std::to_string(entry.sinceBoot) + "\n";
    text += "_BOOT_ID=" + entry.boot + "\n_MACHINE_ID=" + entry.machine + "\n";
    for (const auto& [name, value] : entry.fields)
      appendJournalField(name + "=" + value, &text);
    text += "\n";
  }
  return text;
}

void makeJournal(const std::string& path, const std::vector<MadeEntry>& entries) {
  makeJournalOfText(path, exportText(entries));
}

void makeJournalOfText(const std::string& path, const std::string& text) {
  const std::string input = path + ".text";
  std::ofstream(input, std::ios::binary) << text << std::flush;
  const testing::CommandResult result =
      testing::runCommand(std::string(kImporter) + " -o '" + path + "' '" + input + "' 2>&1");
  std::remove(input.c_str());
  if (result.status == 0) return;
  std::fprintf(stderr, "%s failed: %s\n", kImporter, result.output.c_str());
  std::abort();
}

std::string journalctl(const std::string& arguments) {
  return testing::runCommand("journalctl --no-pager --quiet " + arguments).output;
}

void overwrite(const std::string& path, std::uint64_t offset, const std::string& bytes) {
  std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
  file.seekp(static_cast<std::streamoff>(offset));
  file << bytes << std::flush;
}

std::uint64_t numberIn(const std::string& path, std::uint64_t offset) {
  const auto content = readSmallFile(path);
  std::uint64_t number = 0;
  for (std::uint64_t i = 8; content && i > 0; --i)
    number = number << 8 | static_cast<unsigned char>(content->text()[offset + i - 1]);
  return number;
}

}  // namespace quillsift
