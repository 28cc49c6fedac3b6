#include "helper/isakmp/Transforms.h"

#include <algorithm>
#include <limits>
#include <set>

#include "helper/isakmp/Header.h"

namespace helper::isakmp {

using std::chrono::seconds;

namespace {

// Numbers of ciphers: phase 1's attribute, phase 2's transform.
struct CipherNumbers {
  CipherAlgorithm cipher;
  std::uint16_t phase1;
  std::uint8_t phase2;
  std::uint16_t keyBits;  // 0: not said
};
constexpr CipherNumbers kCiphers[] = {{CipherAlgorithm::tripleDES, 5, 3, 0},
                                      {CipherAlgorithm::aes128, 7, 12, 128},
                                      {CipherAlgorithm::aes192, 7, 12, 192},
                                      {CipherAlgorithm::aes256, 7, 12, 256}};

// Of a hash: phase 2's attribute. Phase 1's is the enumerator.
struct IntegrityNumber {
  HashAlgorithm hash;
  std::uint16_t phase2;
};
constexpr IntegrityNumber kIntegrity[] = {{HashAlgorithm::md5, 1},
                                          {HashAlgorithm::sha1, 2},
                                          {HashAlgorithm::sha256, 5},
                                          {HashAlgorithm::sha384, 6},
                                          {HashAlgorithm::sha512, 7}};

struct LifeAttributes {
  std::uint16_t type;
  std::uint16_t duration;
};
constexpr LifeAttributes kPhase1Life{phase1::kLifeType, phase1::kLifeDuration};
constexpr LifeAttributes kPhase2Life{phase2::kLifeType, phase2::kLifeDuration};

const CipherNumbers &numbersOf(CipherAlgorithm cipher) {
  return *std::find_if(
      std::begin(kCiphers), std::end(kCiphers), [&](const auto &row) { return row.cipher == cipher; });
}

std::uint16_t integrityNumber(HashAlgorithm hash) {
  return std::find_if(
             std::begin(kIntegrity), std::end(kIntegrity), [&](const auto &row) { return row.hash == hash; })
      ->phase2;
}

void addLifetime(std::vector<Attribute> &attributes, LifeAttributes names, seconds lifetime) {
  attributes.push_back({names.type, kSeconds});
  attributes.push_back({names.duration, static_cast<std::uint64_t>(lifetime.count())});
}

// Without lifetimes, in order of their types.
std::vector<Attribute> attributesOf(const IKEProposal &proposal) {
  const CipherNumbers &cipher = numbersOf(proposal.cipher);
  std::vector<Attribute> attributes{{phase1::kCipher, cipher.phase1},
                                    {phase1::kHash, static_cast<std::uint64_t>(proposal.hash)},
                                    {phase1::kAuthentication, phase1::kPresharedKey},
                                    {phase1::kGroup, static_cast<std::uint64_t>(proposal.group)}};
  if (cipher.keyBits != 0) attributes.push_back({phase1::kKeyBits, cipher.keyBits});
  return attributes;
}

std::vector<Attribute> attributesOf(const ESPProposal &proposal, Mode mode) {
  const CipherNumbers &cipher = numbersOf(proposal.cipher);
  std::vector<Attribute> attributes;
  if (proposal.group) attributes.push_back({phase2::kGroup, static_cast<std::uint64_t>(*proposal.group)});
  attributes.push_back({phase2::kMode, mode});
  attributes.push_back({phase2::kIntegrity, integrityNumber(proposal.integrity)});
  if (cipher.keyBits != 0) attributes.push_back({phase2::kKeyBits, cipher.keyBits});
  return attributes;
}

// ATTRIBUTES as above: without lifetimes, in order. What is there twice stays twice.
std::vector<Attribute> essential(std::vector<Attribute> attributes, LifeAttributes life) {
  std::erase_if(
      attributes, [&](const Attribute &a) { return a.type == life.type || a.type == life.duration; });
  std::stable_sort(attributes.begin(), attributes.end(),
                   [](const Attribute &a, const Attribute &b) { return a.type < b.type; });
  return attributes;
}

// A lifetime is two attributes: in which unit, and how much. There may be one of each unit.
bool lifetimesAreSound(const std::vector<Attribute> &attributes, LifeAttributes names) {
  std::set<std::uint64_t> units;
  bool open = false;
  for (const Attribute &attribute : attributes) {
    if (attribute.type == names.type) {
      if (open || !units.insert(attribute.value).second) return false;
      open = true;
    } else if (attribute.type == names.duration) {
      if (!open) return false;
      open = false;
    }
  }
  return !open;
}

bool matches(const Transform &transform, const IKEProposal &proposal) {
  return transform.id == kTransformKeyIKE && lifetimesAreSound(transform.attributes, kPhase1Life) &&
         essential(transform.attributes, kPhase1Life) == attributesOf(proposal);
}

bool matches(const Transform &transform, const ESPProposal &proposal, Mode mode) {
  return transform.id == numbersOf(proposal.cipher).phase2 && lifetimesAreSound(transform.attributes, kPhase2Life) &&
         essential(transform.attributes, kPhase2Life) == attributesOf(proposal, mode);
}

std::optional<std::uint32_t> spiOf(const Proposal &proposal) {
  if (proposal.protocol != kProtocolESP || proposal.spi.size() != 4) return std::nullopt;
  const std::uint32_t spi = read32(proposal.spi);
  if (spi < kLeastSPI) return std::nullopt;
  return spi;
}

// With perfect forward secrecy as the peer asks for it, where we leave it open.
std::vector<ESPProposal> acceptable(const std::vector<ESPProposal> &ours, const Transform &transform) {
  std::vector<ESPProposal> proposals = ours;
  const auto asked = std::find_if(transform.attributes.begin(), transform.attributes.end(),
                                  [](const Attribute &a) { return a.type == phase2::kGroup; });
  if (asked == transform.attributes.end()) return proposals;
  for (const Group group : {Group::modp1024, Group::modp1536, Group::modp2048, Group::modp3072, Group::modp4096,
                            Group::ecp256, Group::ecp384})
    if (asked->value == static_cast<std::uint64_t>(group))
      for (ESPProposal &proposal : proposals)
        if (!proposal.group) proposal.group = group;
  return proposals;
}

// Proposals that share a number are wanted together, which is more than we have.
bool standsAlone(const Proposal &proposal, const SecurityAssociation &offer) {
  return std::count_if(
             offer.proposals.begin(), offer.proposals.end(),
             [&](const Proposal &other) { return other.number == proposal.number; }) == 1;
}

SecurityAssociation answerWith(const Proposal &proposal, const Transform &transform, Bytes spi) {
  return {{Proposal{proposal.number, proposal.protocol, std::move(spi), {transform}}}};
}

Bytes bytesOf(std::uint32_t spi) {
  Bytes bytes;
  append32(bytes, spi);
  return bytes;
}

vpnctl::Result<const Transform *> onlyTransform(const SecurityAssociation &answer, std::uint8_t protocol) {
  if (answer.proposals.size() != 1) return malformed("not exactly one proposal");
  if (answer.proposals.front().protocol != protocol) return malformed("a proposal for another protocol");
  if (answer.proposals.front().transforms.size() != 1) return malformed("not exactly one transform");
  return &answer.proposals.front().transforms.front();
}

}  // namespace

std::optional<seconds> lifetimeIn(const std::vector<Attribute> &attributes, std::uint8_t protocol) {
  const LifeAttributes names = protocol == kProtocolISAKMP ? kPhase1Life : kPhase2Life;
  if (!lifetimesAreSound(attributes, names)) return std::nullopt;
  std::uint64_t unit = 0;
  for (const Attribute &attribute : attributes) {
    if (attribute.type == names.type) unit = attribute.value;
    if (attribute.type == names.duration && unit == kSeconds)
      return seconds(std::min<std::uint64_t>(attribute.value, std::numeric_limits<std::uint32_t>::max()));
  }
  return std::nullopt;
}

SecurityAssociation offerOf(const std::vector<IKEProposal> &proposals, seconds lifetime) {
  Proposal offer{1, kProtocolISAKMP, {}, {}};
  for (const IKEProposal &proposal : proposals) {
    Transform transform{static_cast<std::uint8_t>(offer.transforms.size() + 1), kTransformKeyIKE,
                        attributesOf(proposal)};
    addLifetime(transform.attributes, kPhase1Life, lifetime);
    offer.transforms.push_back(std::move(transform));
  }
  return {{std::move(offer)}};
}

SecurityAssociation offerOf(const std::vector<ESPProposal> &proposals, Mode mode, std::uint32_t spi, seconds lifetime) {
  Proposal offer{1, kProtocolESP, bytesOf(spi), {}};
  for (const ESPProposal &proposal : proposals) {
    Transform transform{static_cast<std::uint8_t>(offer.transforms.size() + 1), numbersOf(proposal.cipher).phase2,
                        attributesOf(proposal, mode)};
    addLifetime(transform.attributes, kPhase2Life, lifetime);
    offer.transforms.push_back(std::move(transform));
  }
  return {{std::move(offer)}};
}

vpnctl::Result<IKEChoice> checkChoice(const SecurityAssociation &answer, const std::vector<IKEProposal> &offered) {
  const auto transform = onlyTransform(answer, kProtocolISAKMP);
  if (!transform) return transform.error();
  for (const IKEProposal &proposal : offered)
    if (matches(**transform, proposal))
      return IKEChoice{proposal, lifetimeIn((*transform)->attributes, kProtocolISAKMP)};
  return malformed("a transform that was not offered");
}

vpnctl::Result<ESPChoice> checkChoice(const SecurityAssociation &answer, const std::vector<ESPProposal> &offered,
                                      Mode mode) {
  const auto transform = onlyTransform(answer, kProtocolESP);
  if (!transform) return transform.error();
  const auto spi = spiOf(answer.proposals.front());
  if (!spi) return malformed("an SPI that cannot be");
  for (const ESPProposal &proposal : offered)
    if (matches(**transform, proposal, mode))
      return ESPChoice{proposal, lifetimeIn((*transform)->attributes, kProtocolESP), *spi};
  return malformed("a transform that was not offered");
}

std::optional<IKEAgreement> choose(const SecurityAssociation &offer, const std::vector<IKEProposal> &ours) {
  for (const Proposal &proposal : offer.proposals) {
    if (proposal.protocol != kProtocolISAKMP || !standsAlone(proposal, offer)) continue;
    for (const Transform &transform : proposal.transforms)
      for (const IKEProposal &own : ours)
        if (matches(transform, own))
          return IKEAgreement{{own, lifetimeIn(transform.attributes, kProtocolISAKMP)},
                              answerWith(proposal, transform, {})};
  }
  return std::nullopt;
}

std::optional<ESPAgreement> choose(const SecurityAssociation &offer, const std::vector<ESPProposal> &ours, Mode mode,
                                   std::uint32_t spi) {
  for (const Proposal &proposal : offer.proposals) {
    const auto theirSPI = spiOf(proposal);
    if (!theirSPI || !standsAlone(proposal, offer)) continue;
    for (const Transform &transform : proposal.transforms)
      for (const ESPProposal &own : acceptable(ours, transform))
        if (matches(transform, own, mode))
          return ESPAgreement{{own, lifetimeIn(transform.attributes, kProtocolESP), *theirSPI},
                              answerWith(proposal, transform, bytesOf(spi))};
  }
  return std::nullopt;
}

}  // namespace helper::isakmp
