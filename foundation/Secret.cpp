#include "foundation/Secret.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace vpnctl {

void wipeMemory(void *bytes, std::size_t size) {
  if (size == 0) return;
  std::memset(bytes, 0, size);
  // As far as the compiler knows, somebody looks at the memory here.
  __asm__ __volatile__("" : : "r"(bytes) : "memory");
}

[[gnu::noinline]] void wipeDeadStack() {
  constexpr std::size_t kSize = std::size_t{64} << 10;
  std::uint8_t dead[kSize];
  wipeMemory(dead, kSize);
}

Secret::Secret(std::string_view bytes)
    : Secret(std::span(reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size())) {}

Secret::Secret(std::span<const std::uint8_t> bytes) : Secret(ofSize(bytes.size())) {
  if (size_ > 0) std::memcpy(bytes_, bytes.data(), size_);
}

Secret Secret::ofSize(std::size_t size) {
  Secret secret;
  if (size == 0) return secret;
  secret.bytes_ = static_cast<std::uint8_t *>(std::calloc(size, 1));
  if (secret.bytes_ == nullptr) throw std::bad_alloc();
  secret.size_ = size;
  return secret;
}

Secret::Secret(const Secret &other) : Secret(other.bytes()) {}

Secret &Secret::operator=(const Secret &other) {
  if (this != &other) *this = Secret(other);
  return *this;
}

Secret::Secret(Secret &&other) noexcept
    : bytes_(std::exchange(other.bytes_, nullptr)), size_(std::exchange(other.size_, 0)) {}

Secret &Secret::operator=(Secret &&other) noexcept {
  if (this == &other) return *this;
  wipe();
  bytes_ = std::exchange(other.bytes_, nullptr);
  size_ = std::exchange(other.size_, 0);
  return *this;
}

Secret::~Secret() { wipe(); }

bool Secret::operator==(const Secret &other) const {
  if (size_ != other.size_) return false;
  std::uint8_t difference = 0;
  for (std::size_t i = 0; i < size_; ++i)
    difference = static_cast<std::uint8_t>(difference | (bytes_[i] ^ other.bytes_[i]));
  return difference == 0;
}

void Secret::wipe() {
  wipeMemory(bytes_, size_);
  std::free(std::exchange(bytes_, nullptr));
  size_ = 0;
}

}  // namespace vpnctl
