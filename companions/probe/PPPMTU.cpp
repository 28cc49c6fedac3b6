#include "companions/probe/PPPMTU.h"

#include <algorithm>

#include "helper/common/DefaultMTU.h"
#include "helper/isakmp/Algorithms.h"

namespace companions {

using helper::isakmp::ESPProposal;

namespace {

constexpr int kIP = 20;
constexpr int kUDP = 8;
constexpr int kGRE = 16;   // with both numbers
constexpr int kPPP = 4;    // address, control and protocol, not compressed
constexpr int kMPPE = 4;   // its counter, and the protocol that it hides
constexpr int kL2TP = 10;  // with sequence numbers
constexpr int kESP = 8;
constexpr int kESPEnd = 2;  // the length of the padding, and the next protocol
constexpr int kBitsPerByte = 8;

int insideESP(const ESPProposal &esp, int bytes) {
  const int block = static_cast<int>(helper::isakmp::blockSize(esp.cipher));
  const int check = static_cast<int>(helper::isakmp::checkSize(esp.integrity)) / kBitsPerByte;
  // CBC's initialization vector is a block long, and only whole blocks are encrypted.
  const int encrypted = bytes - kESP - block - check;
  return encrypted / block * block - kESPEnd;
}

int insideL2TP(const TunnelForm &form, int bytes) {
  int inside = bytes;
  for (const ESPProposal &esp : form.esp) inside = std::min(inside, insideESP(esp, bytes - (form.natted ? kUDP : 0)));
  return inside - kUDP - kL2TP - kPPP;
}

}  // namespace

int pppMTUFor(const TunnelForm &form, int pathMTU) {
  if (form.protocol == TunnelForm::Protocol::pptp) return pathMTU - kIP - kGRE - kPPP - kMPPE;
  return insideL2TP(form, pathMTU - kIP);
}

std::optional<int> smallerPPPMTU(const TunnelForm &form, int pathMTU) {
  const bool pptp = form.protocol == TunnelForm::Protocol::pptp;
  const int fits = pppMTUFor(form, pathMTU);
  if (fits >= (pptp ? helper::kDefaultPPTPMTU : helper::kDefaultL2TPMTU)) return std::nullopt;
  return fits;
}

}  // namespace companions
