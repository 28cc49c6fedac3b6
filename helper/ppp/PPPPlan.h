// What is wanted of PPP on one link: a plain value, without a secret.

#pragma once

#include <chrono>
#include <set>
#include <string>

namespace helper {

enum class AuthProtocol { pap, chap, mschap1, mschap2, eap };

// The encryption that PPP itself must bring, or the link does not come up.
enum class MPPE { none, any, only40, only128 };

struct PPPPlan {
  std::string account{};
  std::string passwordItem{};              // the password's item in the keychain, by its service attribute
  std::set<AuthProtocol> authProtocols{};  // that the server may ask for; none other
  MPPE mppe = MPPE::none;
  int mtu = 1500;  // bytes
  int mru = 1500;
  std::chrono::seconds echoInterval{20};  // between questions whether the other end lives; 0: never asked
  int echoFailures = 15;                  // how many of them may go unanswered; 0: any number
  bool peerDNS = true;                    // ask for name servers
  bool compressProtocolField = false;
  bool compressAddressAndControlField = false;
  bool compressTCPHeaders = false;    // Van Jacobson's way
  std::chrono::seconds idleLimit{0};  // without traffic, then the link ends; 0: none
  bool verbose = false;               // more is to be logged than what a user needs
  bool trace = false;  // so is each packet of pppd's negotiation; of an authentication that there was one
  bool operator==(const PPPPlan &) const = default;
};

}  // namespace helper
