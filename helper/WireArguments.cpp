#include "helper/WireArguments.h"

#include <cerrno>
#include <utility>

#include "foundation/PropertyList.h"

namespace helper {

namespace {

constexpr std::size_t kMaximumAttributes = 16;
constexpr std::size_t kMaximumText = 4096;                      // bytes, of one entry of a list
constexpr std::size_t kMaximumOptions = std::size_t{64} << 10;  // bytes

}  // namespace

int readBytes(sd_bus_message *message, std::string_view *bytes) {
  const void *start = nullptr;
  std::size_t size = 0;
  const int result = sd_bus_message_read_array(message, 'y', &start, &size);
  if (result < 0) return result;
  *bytes = size == 0 ? std::string_view() : std::string_view(static_cast<const char *>(start), size);
  return 0;
}

int readText(sd_bus_message *message, std::size_t maximum, std::string *text) {
  const char *start = nullptr;
  const int result = sd_bus_message_read_basic(message, 's', &start);
  if (result < 0) return result;
  const std::string_view read(start);
  if (read.size() > maximum) return -EMSGSIZE;
  *text = read;
  return 0;
}

int readTexts(sd_bus_message *message, std::size_t maximum, std::vector<std::string> *texts) {
  int result = sd_bus_message_enter_container(message, 'a', "s");
  if (result < 0) return result;
  std::vector<std::string> read;
  while ((result = sd_bus_message_at_end(message, 0)) == 0) {
    if (read.size() == maximum) return -EMSGSIZE;
    result = readText(message, kMaximumText, &read.emplace_back());
    if (result < 0) return result;
  }
  if (result < 0) return result;
  result = sd_bus_message_exit_container(message);
  if (result < 0) return result;
  *texts = std::move(read);
  return 0;
}

int readAttributes(sd_bus_message *message, KeychainItem::Attributes *attributes) {
  int result = sd_bus_message_enter_container(message, 'a', "(uay)");
  if (result < 0) return result;
  KeychainItem::Attributes read;
  while ((result = sd_bus_message_enter_container(message, 'r', "uay")) > 0) {
    if (read.size() == kMaximumAttributes) return -EMSGSIZE;
    std::uint32_t tag = 0;
    std::string_view bytes;
    result = sd_bus_message_read_basic(message, 'u', &tag);
    if (result >= 0) result = readBytes(message, &bytes);
    if (result >= 0) result = sd_bus_message_exit_container(message);
    if (result < 0) return result;
    if (!read.emplace(tag, bytes).second) return -EINVAL;
  }
  if (result < 0) return result;
  result = sd_bus_message_exit_container(message);
  if (result < 0) return result;
  *attributes = std::move(read);
  return 0;
}

int readOptionalDictionary(sd_bus_message *message, foundation::Value *value) {
  std::string_view bytes;
  const int result = readBytes(message, &bytes);
  if (result < 0) return result;
  if (bytes.empty()) {
    *value = {};
    return 0;
  }
  if (bytes.size() > kMaximumOptions) return -EMSGSIZE;
  auto read = foundation::propertyListFromData(bytes, "options");
  if (!read || !read->isDictionary()) return -EINVAL;
  *value = std::move(*read);
  return 0;
}

}  // namespace helper
