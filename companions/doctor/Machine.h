// Where the checks look: everything that is read of this machine has its path here, so that tests can lay out another.
//
// Thread rule: as a plain value.

#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace companions {

struct Machine {
  std::string proc = "/proc";
  std::string sys = "/sys";
  std::string dev = "/dev";
  std::string run = "/run";  // where pppd writes its number

  std::string modules = "/lib/modules";
  std::string release;       // of the kernel that runs
  std::string architecture;  // as uname(1) has it
  std::vector<std::string> modprobe = {"/etc/modprobe.d", "/run/modprobe.d", "/usr/local/lib/modprobe.d",
                                       "/usr/lib/modprobe.d", "/lib/modprobe.d"};

  std::string settings = "/etc/vpnctl";
  uid_t administrator = 0;  // whose settings the helper believes
  std::string journals = "/run/vpnctl";
  std::string lastingJournals = "/var/lib/vpnctl/replaced";

  std::string pppd = "/usr/sbin/pppd";
  std::string tool;
  std::string helper;
  std::string ike;
  std::string plugin;
  std::string helperSocket = "/run/vpnctl.socket";
  std::string policy = "/usr/share/polkit-1/actions/org.vpnctl.system-preferences.policy";

  // This one, with the kernel's own names; where vpnctl's parts lie is the caller's to say.
  static Machine here();
};

}  // namespace companions
