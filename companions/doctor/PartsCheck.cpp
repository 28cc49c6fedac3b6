#include "companions/doctor/PartsCheck.h"

#include <unistd.h>

#include <string>
#include <string_view>

#include "companions/doctor/FindingList.h"

namespace companions {

namespace {

struct Part {
  std::string_view name;
  std::string_view protocol;  // empty: either
  const std::string Machine::*path;
  std::string_view why;
};

constexpr Part kParts[] = {
    {"parts.tool", "", &Machine::tool, "It is what connects."},
    {"parts.helper", "", &Machine::helper, "vpnctl has it do all that needs root."},
    {"parts.ike", "l2tp", &Machine::ike, "It negotiates IPSec, without which there is no L2TP."},
};

}  // namespace

Findings PartsCheck::look(const Situation &situation) {
  FindingList found;
  for (const Part &part : kParts) {
    if (!part.protocol.empty() && !situation.concerns(part.protocol)) continue;
    const std::string &path = situation.machine.*part.path;
    if (::access(path.c_str(), F_OK) != 0)
      found.prevents(part.name, "There is no " + path + ".", std::string(part.why), "install vpnctl anew");
    else if (::access(path.c_str(), X_OK) != 0)
      found.prevents(part.name, path + " cannot be run.", std::string(part.why), "chmod 755 " + path);
    found.fine(part.name, "There is " + path + ".");
  }
  return found.take();
}

}  // namespace companions
