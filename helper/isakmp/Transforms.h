// Proposals as security associations say them (RFC 2409, appendix A; RFC 2407, section 4.5): offering ours, checking
// what the peer chose of them, choosing of the peer's.
//
// A choice counts only if it is exactly one of ours: every attribute once, none that was not offered, none missing.
// Only lifetimes may differ.
//
// Thread rule: none of these keeps state.

#pragma once

#include <chrono>
#include <optional>

#include "helper/isakmp/Proposals.h"
#include "helper/isakmp/SecurityAssociation.h"

namespace helper::isakmp {

// Below it an SPI is reserved (RFC 4303, section 2.1).
inline constexpr std::uint32_t kLeastSPI = 256;

struct IKEChoice {
  IKEProposal proposal;
  std::optional<std::chrono::seconds> lifetime;  // if the peer said one
};

struct ESPChoice {
  ESPProposal proposal;
  std::optional<std::chrono::seconds> lifetime;
  std::uint32_t spi = 0;  // the peer's
};

// How packets are to be carried: the value of the mode attribute.
using Mode = std::uint16_t;

SecurityAssociation offerOf(const std::vector<IKEProposal> &proposals, std::chrono::seconds lifetime);
SecurityAssociation offerOf(const std::vector<ESPProposal> &proposals, Mode mode, std::uint32_t spi,
                            std::chrono::seconds lifetime);

vpnctl::Result<IKEChoice> checkChoice(const SecurityAssociation &answer, const std::vector<IKEProposal> &offered);
vpnctl::Result<ESPChoice> checkChoice(const SecurityAssociation &answer, const std::vector<ESPProposal> &offered,
                                      Mode mode);

// The first of the peer's offers that we have, too, and the association that says so; SPI: ours. Where we ask for no
// perfect forward secrecy the peer may. None: nothing in common.
struct IKEAgreement {
  IKEChoice choice;
  SecurityAssociation answer;
};
struct ESPAgreement {
  ESPChoice choice;
  SecurityAssociation answer;
};
std::optional<IKEAgreement> choose(const SecurityAssociation &offer, const std::vector<IKEProposal> &ours);
std::optional<ESPAgreement> choose(const SecurityAssociation &offer, const std::vector<ESPProposal> &ours, Mode mode,
                                   std::uint32_t spi);

// The lifetime in seconds that ATTRIBUTES of an association of PROTOCOL say.
std::optional<std::chrono::seconds> lifetimeIn(const std::vector<Attribute> &attributes, std::uint8_t protocol);

}  // namespace helper::isakmp
