// Bytes that nobody else may see: a password, a shared secret, a key. Wiped when they die, never printable by accident
// (there is no operator<<, no conversion to a string, and a Value cannot hold one), compared in constant time for equal
// lengths.
//
// Thread rule: as a plain value.

#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace vpnctl {

class Secret {
 public:
  Secret() = default;
  // Copies the bytes; the caller wipes its own copy.
  explicit Secret(std::string_view bytes);
  explicit Secret(std::span<const std::uint8_t> bytes);
  // SIZE zero bytes, to be filled through mutableBytes().
  static Secret ofSize(std::size_t size);

  Secret(const Secret &other);
  Secret &operator=(const Secret &other);
  Secret(Secret &&other) noexcept;
  Secret &operator=(Secret &&other) noexcept;
  ~Secret();

  std::size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  // Views of the bytes, valid until the Secret changes or dies. `text` is for handing UTF-8 on; not zero-terminated.
  std::span<const std::uint8_t> bytes() const { return {bytes_, size_}; }
  std::string_view text() const { return {reinterpret_cast<const char *>(bytes_), size_}; }
  std::span<std::uint8_t> mutableBytes() { return {bytes_, size_}; }

  bool operator==(const Secret &other) const;

 private:
  void wipe();

  std::uint8_t *bytes_ = nullptr;  // owned; malloc'ed
  std::size_t size_ = 0;
};

// Overwrites memory in a way the compiler may not remove.
void wipeMemory(void *bytes, std::size_t size);

// Overwrites what calls that have returned left below the caller's frame, 64 KiB of it. Nobody else can reach that:
// copies of registers that the dynamic linker saved there, a cipher's last block. Call it from as high up as possible.
void wipeDeadStack();

}  // namespace vpnctl
