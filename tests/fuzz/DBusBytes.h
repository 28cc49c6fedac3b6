// D-Bus messages as bytes (little-endian), right or wrong: what no client library would send.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace fuzz {

// What a target has not read yet of its input; behind the end everything is 0.
class Input {
 public:
  explicit Input(std::string_view bytes) : bytes_(bytes) {}

  bool empty() const { return bytes_.empty(); }
  std::uint8_t byte();
  std::uint32_t number();
  // At most SIZE bytes.
  std::string_view bytes(std::size_t size);

 private:
  std::string_view bytes_;
};

// Values in the order of their appending, each aligned as D-Bus wants it.
class Marshaller {
 public:
  void align(std::size_t alignment) { bytes_.resize((bytes_.size() + alignment - 1) / alignment * alignment); }
  // Of 1, 2, 4 or 8 bytes.
  void integer(std::uint64_t value, std::size_t size);
  void text(std::string_view value);       // "s" and "o"
  void signature(std::string_view value);  // "g"
  void bytes(std::string_view value) { bytes_.append(value); }

  // An array's length stands before its elements, which begin aligned to ALIGNMENT: give closeArray() what openArray()
  // gives.
  std::size_t openArray(std::size_t alignment);
  void closeArray(std::size_t begin);

  std::string take() { return std::move(bytes_); }

 private:
  std::string bytes_;
};

enum MessageType : std::uint8_t { methodCall = 1, methodReturn = 2, methodError = 3, signalMessage = 4 };

struct Header {
  std::uint8_t type = methodCall;
  std::uint8_t flags = 0;  // 1: no answer is wanted
  std::uint32_t serial = 0;
  std::string_view path;
  std::string_view interface;
  std::string_view member;
  std::string_view signature;
};

inline constexpr std::uint8_t kNoReplyExpected = 1;

std::string message(const Header &header, std::string_view body);

// What came from the other side.
struct Received {
  std::uint8_t type = 0;
  std::uint32_t replySerial = 0;
  std::string member;
  std::string errorName;
  std::string signature;
  std::string body;

  // The first value, when it is an "i".
  std::optional<std::int32_t> code() const;
};

// Takes the first message off STREAM; none when it is not whole yet. Whatever is no message ends the process: what
// answers must speak properly.
std::optional<Received> takeMessage(std::string &stream);

}  // namespace fuzz
