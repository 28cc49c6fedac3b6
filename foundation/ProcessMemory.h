// What a process that holds secrets does about its memory.
//
// Usual sequence: first thing in main. Thread rule: before there are threads.

#pragma once

namespace vpnctl {

// No core dump of this process will be written, no other process of the same user may look into its memory, and where
// the process has the right to, nothing of it goes to swap; in return it takes no huge pages, here and in what it
// starts. An abort is an abort all the same.
void protectProcessMemory();

}  // namespace vpnctl
