#pragma once

// Coverage counters of a confined process, whose files lie in its own root. Both are null in a
// build that counts nothing.

/// Writes this process's counters, under the names of the build folder's files as seen from here.
__attribute__((weak)) void korvoWriteCoverage();
/// Keeps the counters that a process wrote whose root was the folder.
__attribute__((weak)) void korvoCollectCoverage(const char* root);
