// The descriptors 0, 1 and 2 of a program that was started without some of them.
//
// Usual sequence: first thing in main. Thread rule: before there are threads.

#pragma once

namespace vpnctl {

// Opens /dev/null on those of the three that are closed. Otherwise the next file or socket would be given the number,
// and would be read from as standard input, or receive what is printed. They stay open in children, as standard streams
// do. A process that cannot have them ends here, with exit status 1: there is nothing left that it could be told on.
void openMissingStandardStreams();

}  // namespace vpnctl
