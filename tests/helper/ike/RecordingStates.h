// ESP associations that only remember.

#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <string>
#include <vector>

#include "helper/ike/ESPStates.h"

namespace helper::testing {

// Outlives the states, to be looked at afterwards.
struct KernelRecord {
  std::vector<std::string> calls;
  std::vector<ESPState> installed;
  std::uint32_t nextSPI = 0xc0000001;
  bool refuses = false;
  std::vector<std::uint32_t> missing;  // by their SPIs
};

class RecordingStates : public ESPStates {
 public:
  explicit RecordingStates(KernelRecord &record) : record_(record) {}

  vpnctl::Result<std::uint32_t> allocate(in_addr source, in_addr) override {
    record_.calls.push_back("allocate from " + text(source));
    if (record_.refuses) return refusal();
    return record_.nextSPI++;
  }
  vpnctl::Status install(const ESPState &state, bool inbound) override {
    record_.calls.emplace_back(inbound ? "install in" : "install out");
    if (record_.refuses) return refusal();
    record_.installed.push_back(state);
    return {};
  }
  vpnctl::Status remove(in_addr, in_addr destination, std::uint32_t spi) override {
    record_.calls.push_back("remove " + std::to_string(spi) + " to " + text(destination));
    return {};
  }
  bool has(in_addr, in_addr, std::uint32_t spi) override { return std::ranges::count(record_.missing, spi) == 0; }

 private:
  static vpnctl::Error refusal() { return {"Test", 0, "the kernel has no room"}; }
  static std::string text(in_addr address) { return ::inet_ntoa(address); }

  KernelRecord &record_;
};

}  // namespace helper::testing
