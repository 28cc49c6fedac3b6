// The script that sets the fake's scene for a program run as a process. One instruction per line, words parted by
// blanks, # starts a comment line:
//
//   fail CALL CODE [times=N] [after=N]      the call fails (FakePlatform::fail)
//   raise CALL SIGNAL                       this process gets the signal (a number) inside the call; CALL may also be a
//                                           number: the place in the record, from 1
//   service [NAME]                          a service of the current set; NAME is the rest of the line
//   no-current-set
//   item LABEL SERVICE ACCOUNT              a keychain item
//   status N [CHANGE]                       the connection's status before the start
//   up STEP, down STEP                      what follows a start, a stop; the first "down" replaces the usual end
//   clobber-error                           FakePlatform::readingStatusClobbersError
//
// A STEP is "status N [CHANGE]", "log TEXT" (the rest of the line, with a line feed) or "raise SIGNAL". A CHANGE is any
// of ppp=N, ppp=none (no extended status), ppp=absent (one without the entry), ppp=text (an entry that is no
// dictionary), cause=N, error=N, argument=N.

#pragma once

#include <string>

#include "platform/fake/FakePlatform.h"

namespace platform::fake {

// Carries the script out on PLATFORM. A script that cannot be read or understood ends the process with status 97: a
// test must not pass on half a scene.
void readScript(const std::string &path, FakePlatform &platform);

}  // namespace platform::fake
