#pragma once

#include <string>
#include <string_view>

namespace quillsift::tools {

// A line of the boot entry list without what the entry hands to its program, where that may be a
// kernel command line with secrets in it: text is shown with its secrets masked (the list prints
// 16-bit text as "r.o.o.t.=."), other bytes only as their number. Lines that are not boot entries
// stay as they are.
std::string withEntryDataMasked(std::string_view line);

}  // namespace quillsift::tools
