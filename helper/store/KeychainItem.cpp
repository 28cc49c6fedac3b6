#include "helper/store/KeychainItem.h"

#include <algorithm>
#include <utility>

#include "foundation/PropertyList.h"
#include "foundation/Text.h"

namespace helper {

using vpnctl::Error;
using vpnctl::Result;
using vpnctl::Value;

namespace {

std::string nameOfTag(std::uint32_t tag) {
  std::string name(4, ' ');
  for (int i = 0; i < 4; ++i) name[static_cast<std::size_t>(i)] = static_cast<char>(tag >> (24 - 8 * i) & 0xff);
  return name;
}

std::uint32_t tagOfName(const std::string &name) {
  std::uint32_t tag = 0;
  for (const char character : name) tag = tag << 8 | static_cast<unsigned char>(character);
  return tag;
}

void appendPart(std::string &bytes, std::string_view part) {
  const std::uint64_t size = part.size();
  for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(size >> shift & 0xff);
  bytes += part;
}

Value::Data dataOf(const std::string &bytes) { return {bytes.begin(), bytes.end()}; }
std::string bytesOf(const Value &value) {
  if (value.isString()) return value.string();
  return {value.data().begin(), value.data().end()};
}
bool isBytes(const Value &value) { return value.isString() || value.type() == Value::Type::data; }

Error wrong(const std::string &identifier, std::string_view what) {
  return {"Keychain", 1, "item " + identifier + ": its " + std::string(what)};
}

}  // namespace

bool isPlainText(std::string_view text) {
  return vpnctl::isValidUTF8(text) &&
         std::all_of(
             text.begin(), text.end(),
             [](char character) { return static_cast<unsigned char>(character) >= 0x20 && character != 0x7f; });
}

const std::string &KeychainItem::attribute(std::uint32_t tag) const {
  static const std::string kNone;
  const auto found = attributes.find(tag);
  return found == attributes.end() ? kNone : found->second;
}

bool KeychainItem::matches(const Attributes &wanted) const {
  return std::all_of(
      wanted.begin(), wanted.end(), [this](const auto &entry) { return attribute(entry.first) == entry.second; });
}

std::string KeychainItem::associatedData() const {
  std::string bytes;
  // Items without a use are those of version 1.
  appendPart(bytes, use ? "vpnctl keychain item 2" : "vpnctl keychain item 1");
  appendPart(bytes, identifier);
  appendPart(bytes, std::to_string(attributes.size()));
  for (const auto &[tag, value] : attributes) {
    appendPart(bytes, nameOfTag(tag));
    appendPart(bytes, value);
  }
  if (use) {
    appendPart(bytes, std::to_string(use->owner));
    const auto terms = vpnctl::xmlPropertyList(use->terms);
    appendPart(bytes, terms ? *terms : std::string());
  }
  appendPart(bytes, access.description);
  for (const auto &path : access.trustedPaths) appendPart(bytes, path);
  return bytes;
}

Value KeychainItem::value() const {
  Value attributeValues{Value::Dictionary()};
  for (const auto &[tag, bytes] : attributes)
    attributeValues.set(nameOfTag(tag), isPlainText(bytes) ? Value(bytes) : Value(dataOf(bytes)));
  Value::Array paths(access.trustedPaths.begin(), access.trustedPaths.end());
  Value item = Value::Dictionary{
      {"Attributes", attributeValues},
      {"Access", Value::Dictionary{{"Description", access.description}, {"TrustedApplications", std::move(paths)}}},
      {"Secret", dataOf(sealedSecret)},
  };
  if (use) item.set("Use", Value::Dictionary{{"Owner", std::int64_t{use->owner}}, {"Service", use->terms}});
  return item;
}

Result<KeychainItem> KeychainItem::fromValue(const std::string &identifier, const Value &value) {
  KeychainItem item;
  item.identifier = identifier;
  if (!value["Attributes"].isDictionary()) return wrong(identifier, "attributes are not a dictionary");
  for (const auto &[name, bytes] : value["Attributes"].dictionary()) {
    if (name.size() != 4 || !isBytes(bytes)) return wrong(identifier, "attributes hold what is no attribute");
    item.attributes[tagOfName(name)] = bytesOf(bytes);
  }
  const Value &access = value["Access"];
  if (!access["Description"].isString() || !access["TrustedApplications"].isArray())
    return wrong(identifier, "access list has another shape");
  item.access.description = access["Description"].string();
  for (const Value &path : access["TrustedApplications"].array()) {
    if (!path.isString()) return wrong(identifier, "access list holds what is no path");
    item.access.trustedPaths.push_back(path.string());
  }
  if (const Value *use = value.find("Use")) {
    const Value &owner = (*use)["Owner"];
    if (owner.type() != Value::Type::signedInteger || !std::in_range<uid_t>(owner.integerValue()) ||
        !(*use)["Service"].isDictionary())
      return wrong(identifier, "use has another shape");
    item.use = SecretUse{static_cast<uid_t>(owner.integerValue()), (*use)["Service"]};
  }
  if (value["Secret"].type() != Value::Type::data) return wrong(identifier, "secret is not data");
  item.sealedSecret = bytesOf(value["Secret"]);
  return item;
}

}  // namespace helper
