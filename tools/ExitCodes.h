#pragma once

namespace quillsift::tools {

// What a program of the platform tree exits with when it has no listing to give. The job keeps the
// output of a program that exits non-zero, so each goes with one line that says why.
inline constexpr int kExitUnknownArguments = 64;  // EX_USAGE
inline constexpr int kExitNotHere = 69;           // EX_UNAVAILABLE: this machine has no such thing
inline constexpr int kExitTimeLimit = 75;         // EX_TEMPFAIL: a limit cut the listing short
inline constexpr int kExitNotPermitted = 77;      // EX_NOPERM: this user sees part of it or nothing

}  // namespace quillsift::tools
