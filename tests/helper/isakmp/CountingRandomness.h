// The same bytes each time, none of them twice in a row.

#pragma once

#include "helper/isakmp/Randomness.h"

namespace helper::isakmp {

class CountingRandomness : public Randomness {
 public:
  explicit CountingRandomness(std::uint32_t seed = 1) : state_(seed * 2654435761U + 1) {}
  void fill(std::span<std::uint8_t> bytes) override {
    for (std::uint8_t &byte : bytes) {
      state_ = state_ * 1664525U + 1013904223U;
      byte = static_cast<std::uint8_t>(state_ >> 24);
    }
  }

 private:
  std::uint32_t state_;
};

}  // namespace helper::isakmp
