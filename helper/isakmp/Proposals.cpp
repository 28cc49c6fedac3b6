#include "helper/isakmp/Proposals.h"

#include <array>
#include <stdexcept>

namespace helper::isakmp {

namespace {

// More would make the first message so long that it goes in pieces, which gets lost on many ways.
constexpr std::size_t kMost = 28;

template <class Algorithm>
struct Named {
  const char *name;
  Algorithm algorithm;
};

// Of several names for one the first is how we write it.
constexpr std::array kCiphers{Named<CipherAlgorithm>{"aes256", CipherAlgorithm::aes256},
                              Named<CipherAlgorithm>{"aes192", CipherAlgorithm::aes192},
                              Named<CipherAlgorithm>{"aes128", CipherAlgorithm::aes128},
                              Named<CipherAlgorithm>{"aes", CipherAlgorithm::aes128},
                              Named<CipherAlgorithm>{"3des", CipherAlgorithm::tripleDES}};
constexpr std::array kHashes{
    Named<HashAlgorithm>{"sha512", HashAlgorithm::sha512}, Named<HashAlgorithm>{"sha2_512", HashAlgorithm::sha512},
    Named<HashAlgorithm>{"sha384", HashAlgorithm::sha384}, Named<HashAlgorithm>{"sha2_384", HashAlgorithm::sha384},
    Named<HashAlgorithm>{"sha256", HashAlgorithm::sha256}, Named<HashAlgorithm>{"sha2_256", HashAlgorithm::sha256},
    Named<HashAlgorithm>{"sha1", HashAlgorithm::sha1},     Named<HashAlgorithm>{"sha", HashAlgorithm::sha1},
    Named<HashAlgorithm>{"md5", HashAlgorithm::md5}};
constexpr std::array kGroups{Named<Group>{"modp1024", Group::modp1024}, Named<Group>{"modp1536", Group::modp1536},
                             Named<Group>{"modp2048", Group::modp2048}, Named<Group>{"modp3072", Group::modp3072},
                             Named<Group>{"modp4096", Group::modp4096}, Named<Group>{"ecp256", Group::ecp256},
                             Named<Group>{"ecp384", Group::ecp384}};

template <class Rows, class Algorithm>
std::string nameOf(const Rows &rows, Algorithm algorithm) {
  for (const auto &row : rows)
    if (row.algorithm == algorithm) return row.name;
  throw std::logic_error("an algorithm without a name");
}

// One of each kind at most, whatever the order.
struct Algorithms {
  std::optional<CipherAlgorithm> cipher;
  std::optional<HashAlgorithm> hash;
  std::optional<Group> group;

  // False for a name that is unknown, or the second of its kind.
  bool add(std::string_view name) {
    return take(kCiphers, name, cipher) || take(kHashes, name, hash) || take(kGroups, name, group);
  }

 private:
  template <class Rows, class Algorithm>
  static bool take(const Rows &rows, std::string_view name, std::optional<Algorithm> &place) {
    for (const auto &row : rows) {
      if (name != row.name) continue;
      if (place) return false;
      place = row.algorithm;
      return true;
    }
    return false;
  }
};

vpnctl::Error unusable(const std::string &text, const std::string &reason) {
  return {"ISAKMP", 0, "proposal \"" + text + "\": " + reason};
}

vpnctl::Result<Algorithms> algorithmsOf(const std::string &text) {
  Algorithms algorithms;
  std::string_view left = text;
  for (bool more = true; more;) {
    const std::size_t dash = left.find('-');
    const std::string_view name = left.substr(0, dash);
    if (!algorithms.add(name)) return unusable(text, "cannot use \"" + std::string(name) + "\"");
    more = dash != std::string_view::npos;
    left.remove_prefix(more ? dash + 1 : left.size());
  }
  if (!algorithms.cipher) return unusable(text, "no cipher");
  if (!algorithms.hash) return unusable(text, "no hash");
  return algorithms;
}

}  // namespace

std::string IKEProposal::text() const {
  return nameOf(kCiphers, cipher) + "-" + nameOf(kHashes, hash) + "-" + nameOf(kGroups, group);
}

std::string ESPProposal::text() const {
  return nameOf(kCiphers, cipher) + "-" + nameOf(kHashes, integrity) + (group ? "-" + nameOf(kGroups, *group) : "");
}

vpnctl::Result<std::vector<IKEProposal>> parseIKEProposals(const std::vector<std::string> &texts) {
  if (texts.size() > kMost) return vpnctl::Error{"ISAKMP", 0, "too many proposals"};
  std::vector<IKEProposal> proposals;
  for (const std::string &text : texts) {
    const auto algorithms = algorithmsOf(text);
    if (!algorithms) return algorithms.error();
    if (!algorithms->group) return unusable(text, "no group");
    proposals.push_back({*algorithms->cipher, *algorithms->hash, *algorithms->group});
  }
  return proposals;
}

vpnctl::Result<std::vector<ESPProposal>> parseESPProposals(const std::vector<std::string> &texts) {
  if (texts.size() > kMost) return vpnctl::Error{"ISAKMP", 0, "too many proposals"};
  std::vector<ESPProposal> proposals;
  for (const std::string &text : texts) {
    const auto algorithms = algorithmsOf(text);
    if (!algorithms) return algorithms.error();
    proposals.push_back({*algorithms->cipher, *algorithms->hash, algorithms->group});
    if (proposals.back().group != proposals.front().group)
      return unusable(text, "another group than in \"" + texts.front() + "\"");
  }
  return proposals;
}

std::vector<IKEProposal> defaultIKEProposals() {
  using enum CipherAlgorithm;
  using enum HashAlgorithm;
  using enum Group;
  return {{aes256, sha256, modp2048}, {aes256, sha256, modp1536}, {aes256, sha256, modp1024},
          {aes256, sha1, modp2048},   {aes256, sha1, modp1536},   {aes256, sha1, modp1024},
          {aes256, sha1, ecp384},     {aes128, sha1, modp2048},   {aes128, sha1, modp1536},
          {aes128, sha1, modp1024},   {aes128, sha1, ecp256},     {tripleDES, sha1, modp2048},
          {tripleDES, sha1, modp1024}};
}

std::vector<ESPProposal> defaultESPProposals() {
  using enum CipherAlgorithm;
  using enum HashAlgorithm;
  return {{aes256, sha256, {}}, {aes256, sha1, {}}, {aes128, sha256, {}}, {aes128, sha1, {}}, {tripleDES, sha1, {}}};
}

std::vector<IKEProposal> fewIKEProposals() {
  using enum CipherAlgorithm;
  using enum HashAlgorithm;
  using enum Group;
  return {{aes256, sha1, modp2048}, {aes128, sha1, modp1024}, {tripleDES, sha1, modp1024}};
}

std::vector<ESPProposal> fewESPProposals() {
  using enum CipherAlgorithm;
  using enum HashAlgorithm;
  return {{aes256, sha1, {}}, {aes128, sha1, {}}, {tripleDES, sha1, {}}};
}

}  // namespace helper::isakmp
