// The seam at which randomness comes in: a test that gives the same bytes again gets the same messages again.

#pragma once

#include <cstdint>
#include <span>

namespace helper::isakmp {

class Randomness {
 public:
  virtual ~Randomness() = default;
  // Fills BYTES with what nobody can guess.
  virtual void fill(std::span<std::uint8_t> bytes) = 0;
};

}  // namespace helper::isakmp
