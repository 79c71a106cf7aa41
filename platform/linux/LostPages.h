#pragma once

namespace quillsift {

// For a process that only reads files which others may shorten meanwhile, and that cannot look
// after each mapping because a library makes them.

// From now on a mapped page that its file has lost reads as zeros, whoever mapped it, instead of
// ending the process. Takes over the signal SIGBUS for the whole process.
void fillLostPagesWithZeros();

// Whether that has happened yet. Any thread.
bool pagesWereLost();

}  // namespace quillsift
