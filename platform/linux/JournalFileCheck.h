#pragma once

#include <cstdint>
#include <optional>

namespace quillsift {

// What a journal file says about itself, and whether it is in order.
struct JournalFileFacts {
  std::uint64_t entries = 0;  // by its header
  // Where the first object should begin and none does: the objects of a sound file follow one
  // another without a gap, and a page that was lost or overwritten breaks the chain. None for a
  // sound file, and for one whose header says that it is no journal or was cut, which whoever opens
  // it as a journal notices.
  std::optional<std::uint64_t> firstDamage;
};

// Reads the whole file, or nothing but its header; the contents of the objects are not looked at.
// Leaves the descriptor's position alone.
JournalFileFacts inspectJournalFile(int descriptor, bool wholeFile);

}  // namespace quillsift
