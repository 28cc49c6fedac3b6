// What is said over an IKE daemon's control socket: sections of key/value pairs, lists and further sections, and the
// packets that carry them (VICI). Encoding, decoding, and cutting a byte stream into packets.
//
// Texts are bytes, as on the wire. Everything encoded is a Secret, since a shared secret may be in it.
//
// Thread rule: none of these keeps state, except a PacketReader, which belongs to one thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "foundation/Result.h"
#include "foundation/Secret.h"

namespace helper::vici {

inline constexpr std::size_t kLargestPacket = std::size_t{512} * 1024;  // without its length field
inline constexpr std::size_t kDeepest = 16;                             // sections in sections; daemons use five
inline constexpr std::size_t kLongestName = 255;
inline constexpr std::size_t kLongestValue = 65535;

struct Element;

// A section, or a whole message: elements in their order. Names may come twice; find gives the first.
class Section {
 public:
  using List = std::vector<std::string>;

  Section() = default;

  Section &add(std::string name, std::string value);
  Section &add(std::string name, foundation::Secret value);
  Section &add(std::string name, List items);
  Section &add(std::string name, Section section);

  const std::vector<Element> &elements() const { return elements_; }
  // The value, the list, the section of that name; an empty one when there is none.
  const std::string &value(std::string_view name) const;
  const List &list(std::string_view name) const;
  const Section &section(std::string_view name) const;
  bool operator==(const Section &) const = default;

 private:
  const Element *find(std::string_view name) const;

  std::vector<Element> elements_;
};

struct Element {
  std::string name;
  // A secret is decoded as a text: nobody sends us any.
  std::variant<std::string, foundation::Secret, Section::List, Section> value;
  bool operator==(const Element &) const = default;
};

enum class PacketType : std::uint8_t {
  request = 0,
  response = 1,
  unknownCommand = 2,
  registerEvent = 3,
  unregisterEvent = 4,
  confirmation = 5,
  unknownEvent = 6,
  event = 7
};

struct Packet {
  PacketType type = PacketType::request;
  std::string name;  // of requests, registrations and events
  Section message;   // of requests, responses and events
  bool operator==(const Packet &) const = default;
};

// With the length in front. An error when a name, a value or the whole is too long for the wire, or the sections too
// deep; it shows nothing of a value.
foundation::Result<foundation::Secret> encode(const Packet &packet);
// BYTES are one packet without its length.
foundation::Result<Packet> decode(std::span<const std::uint8_t> bytes);

// Cuts a stream of bytes into packets.
class PacketReader {
 public:
  void append(std::span<const std::uint8_t> bytes);
  // The next whole packet; none when more bytes are needed. After an error the stream makes no sense any more.
  foundation::Result<std::optional<Packet>> next();

 private:
  std::vector<std::uint8_t> buffer_;
};

}  // namespace helper::vici
