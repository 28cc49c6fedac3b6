#include "helper/ike/CharonAlgorithms.h"

#include <algorithm>
#include <array>

namespace helper {

namespace {

struct Algorithm {
  const char *written;   // in proposals
  const char *category;  // of get-algorithms
  const char *name;      // there
};

constexpr std::array kAlgorithms{
    Algorithm{"aes128", "encryption", "AES_CBC"},
    Algorithm{"aes192", "encryption", "AES_CBC"},
    Algorithm{"aes256", "encryption", "AES_CBC"},
    Algorithm{"3des", "encryption", "3DES_CBC"},
    Algorithm{"camellia128", "encryption", "CAMELLIA_CBC"},
    Algorithm{"camellia256", "encryption", "CAMELLIA_CBC"},
    Algorithm{"md5", "integrity", "HMAC_MD5_96"},
    Algorithm{"sha1", "integrity", "HMAC_SHA1_96"},
    Algorithm{"sha256", "integrity", "HMAC_SHA2_256_128"},
    Algorithm{"sha384", "integrity", "HMAC_SHA2_384_192"},
    Algorithm{"sha512", "integrity", "HMAC_SHA2_512_256"},
    Algorithm{"modp768", "dh", "MODP_768"},
    Algorithm{"modp1024", "dh", "MODP_1024"},
    Algorithm{"modp1536", "dh", "MODP_1536"},
    Algorithm{"modp2048", "dh", "MODP_2048"},
    Algorithm{"modp3072", "dh", "MODP_3072"},
    Algorithm{"modp4096", "dh", "MODP_4096"},
    Algorithm{"ecp256", "dh", "ECP_256"},
    Algorithm{"ecp384", "dh", "ECP_384"},
    Algorithm{"ecp521", "dh", "ECP_521"},
    Algorithm{"curve25519", "dh", "CURVE_25519"},
};

}  // namespace

CharonAlgorithms::CharonAlgorithms(const vici::Section &answer) {
  names_.emplace();
  for (const vici::Element &category : answer.elements())
    if (const auto *names = std::get_if<vici::Section>(&category.value))
      for (const vici::Element &name : names->elements()) names_->insert(category.name + " " + name.name);
}

bool CharonAlgorithms::has(const std::string &written) const {
  const auto *known = std::find_if(kAlgorithms.begin(), kAlgorithms.end(),
                                   [&](const Algorithm &row) { return written == row.written; });
  if (!names_ || known == kAlgorithms.end()) return true;
  return names_->contains(std::string(known->category) + " " + known->name);
}

}  // namespace helper
