#include "companions/doctor/KernelCheck.h"

#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "companions/doctor/FindingList.h"
#include "companions/doctor/KernelModules.h"

namespace companions {

namespace {

using Module = KernelModules::Module;
using State = KernelModules::State;
using Grade = Finding::Grade;
using MPPE = helper::EngineSettings::MPPE;

// What a connection needs of the kernel.
struct Part {
  std::string_view name;
  std::string_view protocol;  // empty: either
  std::string_view what;
  std::string_view why;
  std::vector<Module> modules;
};

const std::vector<Part> &parts() {
  static const std::vector<Part> kParts{
      {"kernel.ppp",
       "",
       "PPP",
       "Both protocols carry PPP, and pppd needs the kernel for that.",
       {{"ppp_generic", {"devices", 1, "ppp"}}}},
      {"kernel.pptp", "pptp", "PPTP", "The kernel carries PPTP's packets.", {{"pptp", {"net/protocols", 0, "PPTP"}}}},
      {"kernel.mppe",
       "pptp",
       "MPPE",
       "It encrypts what goes through a PPTP connection; without it there is none.",
       {{"ppp_mppe"}}},
      {"kernel.l2tp",
       "l2tp",
       "L2TP",
       "The kernel carries L2TP's packets.",
       {{"l2tp_ppp", {"net/protocols", 0, "PPPOL2TP"}}}},
      {"kernel.ipsec",
       "l2tp",
       "IPSec",
       "L2TP's packets travel inside of IPSec, and never without.",
       {{"xfrm_user", {"net/netlink", 1, "6"}}, {"esp4"}}},
  };
  return kParts;
}

// What ESP is made of; the rest of what may be offered a server may do without.
constexpr std::string_view kAlgorithms[] = {"authenc", "echainiv", "cbc", "hmac", "aes", "sha1"};

std::string package(const Machine &machine) {
  if (machine.architecture == "x86_64") return "linux-image-amd64";
  if (machine.architecture == "aarch64") return "linux-image-arm64";
  return "linux-image-" + machine.architecture;
}

std::string otherKernel(const Machine &machine, const KernelModules &kernel) {
  // In a container: the kernel is its host's, and so are the modules.
  if (kernel.takesModules() && !kernel.hasFolder())
    return "load it where the kernel's modules are, on the host if this is a container";
  return "run a kernel that has it; Debian's has: apt install " + package(machine) + ", then reboot into it";
}

class Looking {
 public:
  Looking(const Situation &situation, FindingList &found)
      : situation_(situation), kernel_(situation.machine), found_(found) {}

  void look() {
    bool isMissing = false;
    for (const Part &part : parts())
      if (isWanted(part)) isMissing = lookAt(part) || isMissing;
    if (isMissing && isBehindUpgrade())
      found_.prevents("kernel.folder",
                      "The modules of the running kernel, " + situation_.machine.release + ", are not on the disk.",
                      "What is not loaded cannot be loaded any more; an upgrade of the kernel leaves it so.", "reboot");
    found_.fine("kernel.folder", "Nothing is missing because of an upgrade.");
    lookAtDevice();
    if (situation_.concerns("l2tp")) lookAtAlgorithms();
  }

 private:
  bool isWanted(const Part &part) const {
    if (part.name == "kernel.mppe" && situation_.settings.pptp.mppe == MPPE::none) return false;
    return part.protocol.empty() || situation_.concerns(part.protocol);
  }

  bool isBehindUpgrade() const { return kernel_.takesModules() && !kernel_.hasFolder() && kernel_.hasOtherFolders(); }

  // Whether some of it is missing.
  bool lookAt(const Part &part) {
    bool isMissing = false;
    for (const Module &module : part.modules) {
      const auto answer = kernel_.find(module);
      isMissing = isMissing || answer.state == State::missing;
      tell(part, std::string(module.name), answer);
    }
    if (!isMissing) found_.fine(part.name, "The kernel has " + std::string(part.what) + ".");
    return isMissing;
  }

  void tell(const Part &part, const std::string &module, const KernelModules::Answer &answer) {
    const std::string what(part.what);
    const std::string why(part.why);
    switch (answer.state) {
      case State::present:
        return;
      case State::loadable:
        if (kernel_.isLocked())
          found_.prevents(part.name, "The kernel has not loaded " + module + ", and loads nothing more.",
                          why + " kernel.modules_disabled is 1, which lasts until the next boot.",
                          "put a line " + module + " into /etc/modules-load.d/vpnctl.conf, then reboot");
        return;
      case State::forbidden:
        return found_.prevents(part.name, answer.detail + " forbids the kernel's module " + module + ".", why,
                               "take the line with " + module + " out of " + answer.detail + ", or modprobe " + module);
      case State::missing:
        if (isBehindUpgrade()) return;
        return found_.prevents(part.name,
                               "This kernel, " + situation_.machine.release + ", has no " + what + " (module " +
                                   module + (answer.detail.empty() ? "" : ", of which " + answer.detail + " is gone") +
                                   ").",
                               why, otherKernel(situation_.machine, kernel_));
      case State::unknown:
        return found_.unseen(part.name, "Whether this kernel has " + what + " (" + module + ") cannot be seen.",
                             why + " It has no list of its parts.", "");
    }
  }

  void lookAtDevice() {
    std::error_code ignored;
    const std::string path = situation_.machine.dev + "/ppp";
    const bool hasPPP = kernel_.find(parts().front().modules.front()).state == State::present;
    if (hasPPP && !std::filesystem::exists(path, ignored))
      found_.prevents("kernel.device", "There is no " + path + ", although the kernel has PPP.",
                      "pppd speaks with the kernel through it.", "mknod -m 600 " + path + " c 108 0");
    found_.fine("kernel.device", hasPPP ? "There is " + path + "." : path + " comes with PPP.");
  }

  void lookAtAlgorithms() {
    std::string missing;
    std::string unknown;
    for (const std::string_view name : kAlgorithms) {
      const State state = kernel_.findAlgorithm(name);
      std::string *list = state == State::missing ? &missing : state == State::unknown ? &unknown : nullptr;
      if (list != nullptr) *list += (list->empty() ? "" : ", ") + std::string(name);
    }
    static constexpr char kName[] = "kernel.algorithms";
    const char *why = "The kernel encrypts and checks with them what goes through IPSec.";
    if (!missing.empty())
      found_.prevents(kName, "This kernel's cryptography lacks " + missing + ".", why,
                      otherKernel(situation_.machine, kernel_));
    else if (!unknown.empty())
      found_.unseen(kName, "Whether this kernel's cryptography has " + unknown + " cannot be seen.", why, "");
    found_.fine(kName, "The kernel has the algorithms that ESP needs.");
  }

  const Situation &situation_;
  KernelModules kernel_;
  FindingList &found_;
};

}  // namespace

Findings KernelCheck::look(const Situation &situation) {
  FindingList found;
  Looking(situation, found).look();
  return found.take();
}

}  // namespace companions
