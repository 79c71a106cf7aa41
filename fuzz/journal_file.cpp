// The look for damage in a journal file. Input: the file.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "platform/FileDescriptor.h"
#include "platform/linux/JournalFileCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const quillsift::FileDescriptor file(::memfd_create("journal", MFD_CLOEXEC));
  if (::write(file.get(), data, size) != static_cast<ssize_t>(size)) std::abort();
  const quillsift::JournalFileFacts facts = quillsift::inspectJournalFile(file.get(), true);
  const quillsift::JournalFileFacts header = quillsift::inspectJournalFile(file.get(), false);
  if (facts.entries != header.entries || header.firstDamage) std::abort();
  return 0;
}
