#include "helper/ike/IKEProposals.h"

#include <algorithm>
#include <sstream>

namespace helper {

IKEProposals IKEProposals::broad() {
  return {{"aes256-sha256-modp2048", "aes256-sha256-modp1536", "aes256-sha256-modp1024", "aes256-sha1-modp2048",
           "aes256-sha1-modp1536", "aes256-sha1-modp1024", "aes256-sha1-ecp384", "aes128-sha1-modp1024",
           "aes128-sha1-ecp256", "3des-sha1-modp2048", "3des-sha1-modp1024"},
          {"aes256-sha256", "aes256-sha1", "aes128-sha1", "3des-sha1"}};
}

IKEProposals IKEProposals::few() {
  return {{"aes256-sha1-modp2048", "aes128-sha1-modp1024", "3des-sha1-modp1024"},
          {"aes256-sha1", "aes128-sha1", "3des-sha1"}};
}

std::vector<std::string> knownProposals(const std::vector<std::string> &proposals,
                                        const std::function<bool(const std::string &)> &knows,
                                        std::vector<std::string> &lacking) {
  std::vector<std::string> kept;
  for (const std::string &proposal : proposals) {
    bool whole = true;
    std::istringstream algorithms(proposal);
    for (std::string algorithm; std::getline(algorithms, algorithm, '-');) {
      if (knows(algorithm)) continue;
      whole = false;
      if (std::find(lacking.begin(), lacking.end(), algorithm) == lacking.end()) lacking.push_back(algorithm);
    }
    if (whole) kept.push_back(proposal);
  }
  return kept;
}

std::string commaSeparated(const std::vector<std::string> &texts) {
  std::string result;
  for (const std::string &text : texts) result += (result.empty() ? "" : ", ") + text;
  return result;
}

}  // namespace helper
