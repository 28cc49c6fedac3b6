#include "helper/ike/ViciMessage.h"

#include <algorithm>

namespace helper::vici {

using foundation::Error;
using foundation::Result;
using foundation::Secret;

namespace {

constexpr std::size_t kLengthSize = 4;

enum class Kind : std::uint8_t { sectionStart = 1, sectionEnd = 2, keyValue = 3, listStart = 4, item = 5, listEnd = 6 };

Error malformed(std::string message) { return {"VICI", 0, std::move(message)}; }

bool hasName(PacketType type) {
  return type == PacketType::request || type == PacketType::registerEvent || type == PacketType::unregisterEvent ||
         type == PacketType::event;
}

bool hasMessage(PacketType type) {
  return type == PacketType::request || type == PacketType::response || type == PacketType::event;
}

// Writes, or only counts: the buffer is made once, in its final size, and leaves no copies behind.
class Writer {
 public:
  Writer() = default;
  explicit Writer(std::span<std::uint8_t> target) : target_(target) {}

  std::size_t size() const { return size_; }
  bool fits() const { return fits_; }

  void byte(std::uint8_t value) {
    if (size_ < target_.size()) target_[size_] = value;
    ++size_;
  }
  void length(std::size_t value, int bytes) {
    for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8) byte(static_cast<std::uint8_t>(value >> shift));
  }
  void name(std::string_view text) {
    fits_ = fits_ && text.size() <= kLongestName;
    length(text.size(), 1);
    bytes(text);
  }
  void value(std::string_view text) {
    fits_ = fits_ && text.size() <= kLongestValue;
    length(text.size(), 2);
    bytes(text);
  }
  void packet(const Packet &packet) {
    byte(static_cast<std::uint8_t>(packet.type));
    if (hasName(packet.type)) name(packet.name);
    if (hasMessage(packet.type)) section(packet.message, 0);
  }

 private:
  void kind(Kind kind) { byte(static_cast<std::uint8_t>(kind)); }
  void bytes(std::string_view text) {
    for (const char character : text) byte(static_cast<std::uint8_t>(character));
  }
  void section(const Section &section, std::size_t depth) {
    fits_ = fits_ && depth <= kDeepest;
    if (!fits_) return;
    for (const Element &element : section.elements())
      std::visit([&](const auto &value) { write(element.name, value, depth); }, element.value);
  }
  void write(const std::string &key, const std::string &text, std::size_t) {
    kind(Kind::keyValue);
    name(key);
    value(text);
  }
  void write(const std::string &key, const Secret &secret, std::size_t) {
    kind(Kind::keyValue);
    name(key);
    value(secret.text());
  }
  void write(const std::string &key, const Section::List &items, std::size_t) {
    kind(Kind::listStart);
    name(key);
    for (const std::string &text : items) {
      kind(Kind::item);
      value(text);
    }
    kind(Kind::listEnd);
  }
  void write(const std::string &key, const Section &inner, std::size_t depth) {
    kind(Kind::sectionStart);
    name(key);
    section(inner, depth + 1);
    kind(Kind::sectionEnd);
  }

  std::span<std::uint8_t> target_;
  std::size_t size_ = 0;
  bool fits_ = true;
};

class Reader {
 public:
  explicit Reader(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  bool atEnd() const { return at_ == bytes_.size(); }
  std::optional<std::uint8_t> byte() {
    if (atEnd()) return std::nullopt;
    return bytes_[at_++];
  }
  // A text behind its length of SIZE bytes.
  std::optional<std::string> text(std::size_t size) {
    if (bytes_.size() - at_ < size) return std::nullopt;
    std::size_t length = 0;
    for (; size > 0; --size) length = length << 8 | bytes_[at_++];
    if (bytes_.size() - at_ < length) return std::nullopt;
    std::string result(reinterpret_cast<const char *>(bytes_.data()) + at_, length);
    at_ += length;
    return result;
  }

  // Elements up to the end of the section, or of the message when DEPTH is 0.
  Result<Section> section(std::size_t depth) {
    if (depth > kDeepest) return malformed("sections nested too deep");
    Section result;
    while (true) {
      const auto kind = byte();
      if (!kind && depth == 0) return result;
      if (!kind) return malformed("a section without end");
      if (*kind == static_cast<std::uint8_t>(Kind::sectionEnd) && depth > 0) return result;
      if (auto added = element(static_cast<Kind>(*kind), depth, result); !added) return added.error();
    }
  }

 private:
  foundation::Status element(Kind kind, std::size_t depth, Section &into) {
    if (kind != Kind::sectionStart && kind != Kind::keyValue && kind != Kind::listStart)
      return malformed("an element of the kind " + std::to_string(static_cast<int>(kind)) + " in the wrong place");
    auto name = text(1);
    if (!name) return malformed("an element with half a name");
    if (kind == Kind::sectionStart) {
      auto inner = section(depth + 1);
      if (!inner) return inner.error();
      into.add(std::move(*name), std::move(*inner));
    } else if (kind == Kind::keyValue) {
      auto value = text(2);
      if (!value) return malformed("half a value");
      into.add(std::move(*name), std::move(*value));
    } else {
      auto items = list();
      if (!items) return items.error();
      into.add(std::move(*name), std::move(*items));
    }
    return {};
  }

  Result<Section::List> list() {
    Section::List items;
    while (true) {
      const auto kind = byte();
      if (!kind) return malformed("a list without end");
      if (*kind == static_cast<std::uint8_t>(Kind::listEnd)) return items;
      if (*kind != static_cast<std::uint8_t>(Kind::item)) return malformed("something else than an item in a list");
      auto item = text(2);
      if (!item) return malformed("half an item");
      items.push_back(std::move(*item));
    }
  }

  std::span<const std::uint8_t> bytes_;
  std::size_t at_ = 0;
};

}  // namespace

Section &Section::add(std::string name, std::string value) {
  elements_.push_back({std::move(name), std::move(value)});
  return *this;
}

Section &Section::add(std::string name, Secret value) {
  elements_.push_back({std::move(name), std::move(value)});
  return *this;
}

Section &Section::add(std::string name, List items) {
  elements_.push_back({std::move(name), std::move(items)});
  return *this;
}

Section &Section::add(std::string name, Section section) {
  elements_.push_back({std::move(name), std::move(section)});
  return *this;
}

const Element *Section::find(std::string_view name) const {
  const auto found =
      std::find_if(elements_.begin(), elements_.end(), [&](const Element &element) { return element.name == name; });
  return found == elements_.end() ? nullptr : &*found;
}

const std::string &Section::value(std::string_view name) const {
  static const std::string kNone;
  const Element *element = find(name);
  const auto *value = element == nullptr ? nullptr : std::get_if<std::string>(&element->value);
  return value == nullptr ? kNone : *value;
}

const Section::List &Section::list(std::string_view name) const {
  static const List kNone;
  const Element *element = find(name);
  const auto *value = element == nullptr ? nullptr : std::get_if<List>(&element->value);
  return value == nullptr ? kNone : *value;
}

const Section &Section::section(std::string_view name) const {
  static const Section kNone;
  const Element *element = find(name);
  const auto *value = element == nullptr ? nullptr : std::get_if<Section>(&element->value);
  return value == nullptr ? kNone : *value;
}

Result<Secret> encode(const Packet &packet) {
  Writer counter;
  counter.packet(packet);
  if (!counter.fits() || counter.size() > kLargestPacket)
    return malformed("the message " + packet.name + " is too long for the IKE daemon");
  Secret bytes = Secret::ofSize(kLengthSize + counter.size());
  Writer writer(bytes.mutableBytes());
  writer.length(counter.size(), kLengthSize);
  writer.packet(packet);
  return bytes;
}

Result<Packet> decode(std::span<const std::uint8_t> bytes) {
  Reader reader(bytes);
  const auto type = reader.byte();
  if (!type) return malformed("a packet without a type");
  if (*type > static_cast<std::uint8_t>(PacketType::event))
    return malformed("a packet of the unknown type " + std::to_string(*type));
  Packet packet;
  packet.type = static_cast<PacketType>(*type);
  if (hasName(packet.type)) {
    auto name = reader.text(1);
    if (!name) return malformed("a packet with half a name");
    packet.name = std::move(*name);
  }
  if (hasMessage(packet.type)) {
    auto message = reader.section(0);
    if (!message) return message.error();
    packet.message = std::move(*message);
  }
  if (!reader.atEnd()) return malformed("a packet with something behind its end");
  return packet;
}

void PacketReader::append(std::span<const std::uint8_t> bytes) {
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

Result<std::optional<Packet>> PacketReader::next() {
  if (buffer_.size() < kLengthSize) return std::optional<Packet>();
  std::size_t length = 0;
  for (std::size_t at = 0; at < kLengthSize; ++at) length = length << 8 | buffer_[at];
  if (length > kLargestPacket) return malformed("a packet with the impossible length " + std::to_string(length));
  if (buffer_.size() < kLengthSize + length) return std::optional<Packet>();
  auto packet = decode(std::span(buffer_).subspan(kLengthSize, length));
  if (!packet) return packet.error();
  buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(kLengthSize + length));
  return std::optional<Packet>(std::move(*packet));
}

}  // namespace helper::vici
