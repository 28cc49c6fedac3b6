// What vpnctl-doctor finds out, one thing each, as plain values.

#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace companions {

struct Finding {
  enum class Grade {
    prevents,  // no connection comes about as long as this is so
    hinders,   // one may come about, and something will be missing, slow or unsafe
    unseen,    // could not be found out, for want of rights mostly
    fine
  };

  Grade grade = Grade::fine;
  std::string_view name;  // for programs: "kernel.l2tp", one of a fixed set, never a sentence
  std::string what;       // a sentence, without secrets
  std::string why;        // why it matters, a sentence; empty where it is fine
  std::string remedy;     // the command, or the line of a file, that mends it; empty: there is none to be named
};

using Findings = std::vector<Finding>;

}  // namespace companions
