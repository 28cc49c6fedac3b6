// What is offered to a server: how IKE and ESP may be protected, in strongSwan's notation, the best first.
//
// Thread rule: none of these keeps state.

#pragma once

#include <functional>
#include <string>
#include <vector>

namespace helper {

struct IKEProposals {
  std::vector<std::string> ike;
  std::vector<std::string> esp;

  // What the clients of the widespread systems offer, together: what servers in the field are made for.
  static IKEProposals broad();
  // For servers that choke on many: what nearly all of them know.
  static IKEProposals few();
};

// Keeps the proposals whose every algorithm KNOWS says yes to. Each algorithm that it says no to is put once into
// LACKING.
std::vector<std::string> knownProposals(const std::vector<std::string> &proposals,
                                        const std::function<bool(const std::string &algorithm)> &knows,
                                        std::vector<std::string> &lacking);

// "a, b, c"
std::string commaSeparated(const std::vector<std::string> &texts);

}  // namespace helper
