// One generic password as the keychain keeps it: what it is called, who may read it, and its secret, sealed.

#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "foundation/Value.h"
#include "helper/common/SecretUse.h"

namespace helper {

inline constexpr std::uint32_t kLabelAttribute = 0x6c61626c;        // "labl"
inline constexpr std::uint32_t kAccountAttribute = 0x61636374;      // "acct"
inline constexpr std::uint32_t kServiceAttribute = 0x73766365;      // "svce"
inline constexpr std::uint32_t kDescriptionAttribute = 0x64657363;  // "desc"

struct KeychainItem {
  // By tag. Bytes, not text: a value may have been cut inside a character.
  using Attributes = std::map<std::uint32_t, std::string>;

  struct Access {
    std::string description;
    std::vector<std::string> trustedPaths;
    bool operator==(const Access &) const = default;
  };

  std::string identifier;
  Attributes attributes;
  Access access;
  std::optional<SecretUse> use;  // none: stored for no service, or before items knew for which
  std::string sealedSecret;

  // The bytes of an attribute; none are as good as no attribute.
  const std::string &attribute(std::uint32_t tag) const;
  bool matches(const Attributes &wanted) const;

  // What the secret is bound to: everything of the item but the secret, each part with its length before it, so that no
  // two items have the same bytes.
  std::string associatedData() const;

  // As an entry of the keychain's property list. Attributes that a property list cannot hold as text are data.
  vpnctl::Value value() const;
  static vpnctl::Result<KeychainItem> fromValue(const std::string &identifier, const vpnctl::Value &value);
};

// True for UTF-8 without control characters: what XML can carry, and what a person can read.
bool isPlainText(std::string_view text);

}  // namespace helper
