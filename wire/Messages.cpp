#include "wire/Messages.h"

#include <cerrno>
#include <limits>
#include <utility>

namespace wire {

using vpnctl::Result;
using vpnctl::Value;

namespace {

constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();

// Writer and Reader have the same functions, for the messages' fields(). A failure sticks.
class Writer {
 public:
  explicit Writer(sd_bus_message *message) : message_(message) {}

  void sensitive() {
    step([&] { return sd_bus_message_sensitive(message_); });
  }
  void number(const std::int32_t &value) {
    step([&] { return sd_bus_message_append_basic(message_, 'i', &value); });
  }
  void flag(const bool &value) {
    const int wide = value ? 1 : 0;
    step([&] { return sd_bus_message_append_basic(message_, 'b', &wide); });
  }
  void bytes(std::string_view value, std::size_t = kUnlimited) {
    step([&] { return sd_bus_message_append_array(message_, 'y', value.data(), value.size()); });
  }
  void text(const std::string &value, std::size_t) {
    step([&] { return sd_bus_message_append_basic(message_, 's', value.c_str()); });
  }
  void texts(const std::vector<std::string> &values, std::size_t = kUnlimited) {
    open('a', "s");
    for (const std::string &value : values) text(value, kUnlimited);
    close();
  }
  void attributes(const Attributes &values, std::size_t) {
    open('a', "(uay)");
    for (const auto &[tag, value] : values) {
      open('r', "uay");
      step([&, &tag = tag] { return sd_bus_message_append_basic(message_, 'u', &tag); });
      bytes(value);
      close();
    }
    close();
  }
  int result() const { return result_; }

 private:
  template <class Step>
  void step(Step step) {
    if (result_ >= 0) result_ = step();
  }
  void open(char kind, const char *contents) {
    step([&] { return sd_bus_message_open_container(message_, kind, contents); });
  }
  void close() {
    step([&] { return sd_bus_message_close_container(message_); });
  }

  sd_bus_message *message_;
  int result_ = 0;
};

class Reader {
 public:
  explicit Reader(sd_bus_message *message) : message_(message) {}

  void sensitive() {
    if (result_ >= 0) result_ = sd_bus_message_sensitive(message_);
  }
  void number(std::int32_t &value) { basic('i', &value); }
  void flag(bool &value) {
    int wide = 0;
    basic('b', &wide);
    value = wide != 0;
  }
  template <class Bytes>
  void bytes(Bytes &value, std::size_t maximum = kUnlimited) {
    const void *start = nullptr;
    std::size_t size = 0;
    if (result_ >= 0) result_ = sd_bus_message_read_array(message_, 'y', &start, &size);
    if (result_ >= 0 && size > maximum) result_ = -EMSGSIZE;
    if (result_ >= 0 && size > 0) value = Bytes(static_cast<const char *>(start), size);
  }
  void text(std::string &value, std::size_t maximum) {
    const char *start = nullptr;
    if (!basic('s', &start)) return;
    const std::string_view read(start);
    if (read.size() > maximum)
      result_ = -EMSGSIZE;
    else
      value = read;
  }
  void texts(std::vector<std::string> &values, std::size_t maximum = kUnlimited) {
    if (!enter('a', "s")) return;
    while (result_ >= 0 && (result_ = sd_bus_message_at_end(message_, 0)) == 0)
      if (values.size() == maximum)
        result_ = -EMSGSIZE;
      else
        text(values.emplace_back(), kMaximumText);
    exit();
  }
  void attributes(Attributes &values, std::size_t maximum) {
    if (!enter('a', "(uay)")) return;
    while (enter('r', "uay")) {
      std::uint32_t tag = 0;
      std::string value;
      basic('u', &tag);
      bytes(value);
      exit();
      if (result_ < 0) return;
      if (values.size() == maximum)
        result_ = -EMSGSIZE;
      else if (!values.emplace(tag, std::move(value)).second)
        result_ = -EINVAL;
    }
    exit();
  }
  int result() const { return result_; }

 private:
  bool basic(char type, void *value) {
    if (result_ >= 0) result_ = sd_bus_message_read_basic(message_, type, value);
    return result_ >= 0;
  }
  // False behind the last entry of a list, too.
  bool enter(char kind, const char *contents) {
    if (result_ >= 0) result_ = sd_bus_message_enter_container(message_, kind, contents);
    return result_ > 0;
  }
  void exit() {
    if (result_ >= 0) result_ = sd_bus_message_exit_container(message_);
  }

  sd_bus_message *message_;
  int result_ = 0;
};

}  // namespace

template <class Contents>
int append(sd_bus_message *message, const Contents &contents) {
  Writer writer(message);
  Contents::fields(writer, contents);
  return writer.result();
}

template <class Contents>
int read(sd_bus_message *message, Contents *contents) {
  Reader reader(message);
  Contents fresh;
  Contents::fields(reader, fresh);
  if (reader.result() >= 0) *contents = std::move(fresh);
  return reader.result();
}

#define WIRE_MESSAGE(Contents)                             \
  template int append(sd_bus_message *, const Contents &); \
  template int read(sd_bus_message *, Contents *);
WIRE_MESSAGE(Nothing)
WIRE_MESSAGE(Code)
WIRE_MESSAGE(Authorize)
WIRE_MESSAGE(TellOfReadableSecrets)
WIRE_MESSAGE(ReadPreferencesReply)
WIRE_MESSAGE(CommitPreferences)
WIRE_MESSAGE(CommitPreferencesReply)
WIRE_MESSAGE(AddKeychainItem)
WIRE_MESSAGE(AddKeychainItemReply)
WIRE_MESSAGE(FindKeychainItems)
WIRE_MESSAGE(FindKeychainItemsReply)
WIRE_MESSAGE(DeleteKeychainItem)
WIRE_MESSAGE(StartLink)
WIRE_MESSAGE(StopLink)
WIRE_MESSAGE(LinkStatus)
WIRE_MESSAGE(LinkStatusReply)
WIRE_MESSAGE(LinkStatusChanged)
#undef WIRE_MESSAGE

std::string bytesOf(const Value &value) {
  if (value.isNull()) return {};
  auto bytes = vpnctl::xmlPropertyList(value);
  return bytes ? std::move(*bytes) : std::string();
}

Result<Value> dictionaryFrom(std::string_view bytes) {
  if (bytes.empty()) return Value();
  auto value = vpnctl::propertyListFromData(bytes, "what the other side sent", kDictionaryLimits);
  if (value && !value->isDictionary()) return vpnctl::errnoError(EINVAL, "read a dictionary");
  return value;
}

}  // namespace wire
