#include "tests/fuzz/DBusBytes.h"

#include <algorithm>
#include <cstring>

#include "foundation/Assertion.h"

namespace fuzz {

namespace {

constexpr std::size_t kFixedHeader = 16;  // up to and with the length of the fields
enum Field : std::uint8_t { pathField = 1, interfaceField, memberField, errorField, replyField, signatureField = 8 };

// Reads what Marshaller writes.
class Unmarshaller {
 public:
  Unmarshaller(std::string_view bytes, std::size_t at) : bytes_(bytes), at_(at) {}

  bool atEnd() const { return at_ >= bytes_.size(); }
  void align(std::size_t alignment) { at_ = (at_ + alignment - 1) / alignment * alignment; }
  std::uint8_t byte() { return static_cast<std::uint8_t>(take(1)[0]); }
  std::uint32_t number() {
    align(4);
    std::uint32_t value = 0;
    std::memcpy(&value, take(4).data(), 4);
    return value;
  }
  std::string_view text() { return terminated(number()); }
  std::string_view signature() { return terminated(byte()); }

 private:
  std::string_view take(std::size_t size) {
    FOUNDATION_ASSERT(at_ <= bytes_.size() && size <= bytes_.size() - at_);
    at_ += size;
    return bytes_.substr(at_ - size, size);
  }
  std::string_view terminated(std::size_t size) {
    const std::string_view value = take(size);
    FOUNDATION_ASSERT(take(1)[0] == '\0');
    return value;
  }

  std::string_view bytes_;
  std::size_t at_;
};

void field(Marshaller &fields, Field code, std::string_view value) {
  if (value.empty()) return;
  fields.align(8);
  fields.integer(code, 1);
  fields.signature(code == pathField ? "o" : code == signatureField ? "g" : "s");
  if (code == signatureField)
    fields.signature(value);
  else
    fields.text(value);
}

}  // namespace

std::uint8_t Input::byte() {
  const std::string_view one = bytes(1);
  return one.empty() ? std::uint8_t{0} : static_cast<std::uint8_t>(one[0]);
}

std::uint32_t Input::number() {
  std::uint32_t value = 0;
  const std::string_view four = bytes(sizeof value);
  std::memcpy(&value, four.data(), four.size());
  return value;
}

std::string_view Input::bytes(std::size_t size) {
  const std::string_view taken = bytes_.substr(0, size);
  bytes_.remove_prefix(taken.size());
  return taken;
}

void Marshaller::integer(std::uint64_t value, std::size_t size) {
  align(size);
  bytes_.append(reinterpret_cast<const char *>(&value), size);
}

void Marshaller::text(std::string_view value) {
  integer(value.size(), 4);
  bytes_.append(value).push_back('\0');
}

void Marshaller::signature(std::string_view value) {
  integer(value.size() & 0xff, 1);
  bytes_.append(value).push_back('\0');
}

std::size_t Marshaller::openArray(std::size_t alignment) {
  integer(0, 4);
  const std::size_t length = bytes_.size() - 4;
  align(alignment);
  // Both in one number: where the length is to be written, and how much padding does not count.
  return length << 3 | (bytes_.size() - length - 4);
}

void Marshaller::closeArray(std::size_t begin) {
  const std::size_t length = begin >> 3;
  const auto size = static_cast<std::uint32_t>(bytes_.size() - length - 4 - (begin & 7));
  std::memcpy(&bytes_[length], &size, sizeof size);
}

std::string message(const Header &header, std::string_view body) {
  Marshaller bytes;
  bytes.integer('l', 1);
  bytes.integer(header.type, 1);
  bytes.integer(header.flags, 1);
  bytes.integer(1, 1);  // the protocol's version
  bytes.integer(body.size(), 4);
  bytes.integer(header.serial, 4);
  const std::size_t fields = bytes.openArray(8);
  field(bytes, pathField, header.path);
  field(bytes, interfaceField, header.interface);
  field(bytes, memberField, header.member);
  field(bytes, signatureField, header.signature);
  bytes.closeArray(fields);
  bytes.align(8);
  return bytes.take().append(body);
}

std::optional<std::int32_t> Received::code() const {
  std::int32_t value = 0;
  if (!signature.starts_with('i') || body.size() < sizeof value) return std::nullopt;
  std::memcpy(&value, body.data(), sizeof value);
  return value;
}

std::optional<Received> takeMessage(std::string &stream) {
  if (stream.size() < kFixedHeader) return std::nullopt;
  FOUNDATION_ASSERT(stream[0] == 'l' && stream[3] == 1);
  Unmarshaller fixed(stream, 4);
  const std::size_t bodySize = fixed.number();
  fixed.number();  // the serial
  const std::size_t fieldsEnd = kFixedHeader + fixed.number();
  const std::size_t bodyBegin = (fieldsEnd + 7) / 8 * 8;
  if (stream.size() < bodyBegin + bodySize) return std::nullopt;

  Received received;
  received.type = static_cast<std::uint8_t>(stream[1]);
  Unmarshaller fields(std::string_view(stream).substr(0, fieldsEnd), kFixedHeader);
  for (; !fields.atEnd(); fields.align(8)) {
    fields.align(8);
    const std::uint8_t code = fields.byte();
    const std::string_view type = fields.signature();
    if (type == "u") {
      const std::uint32_t value = fields.number();
      if (code == replyField) received.replySerial = value;
    } else if (type == "g") {
      received.signature = fields.signature();
    } else {
      const std::string_view value = fields.text();
      if (code == errorField) received.errorName = value;
      if (code == memberField) received.member = value;
    }
  }
  received.body = stream.substr(bodyBegin, bodySize);
  stream.erase(0, bodyBegin + bodySize);
  return received;
}

}  // namespace fuzz
