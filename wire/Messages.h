// What the messages of HelperInterface.h carry, and the one place that writes and reads it.
//
// Usual sequence: fill a struct, append() it to a message; read() it from the other end's. Texts and lists have limits,
// which are checked when they are read. Thread rule: as the message's.

#pragma once

#include <systemd/sd-bus.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/PropertyList.h"
#include "foundation/Result.h"
#include "foundation/Value.h"

namespace wire {

inline constexpr std::size_t kMaximumIdentifier = 128;                 // bytes, of a service or an item
inline constexpr std::size_t kMaximumText = 4096;                      // bytes, of a description or a path
inline constexpr std::size_t kMaximumPaths = 64;                       // of trusted programs
inline constexpr std::size_t kMaximumAttributes = 16;                  // of a keychain item
inline constexpr std::size_t kMaximumOptions = std::size_t{64} << 10;  // bytes, of the options of a start
// Of a dictionary in a message, after everything shared in it has been unfolded.
inline constexpr vpnctl::PropertyListLimits kDictionaryLimits{
    .bytes = kMaximumOptions, .depth = 8, .elements = std::size_t{1} << 12};

// By four-character tag. Bytes, not text: a value may have been cut inside a character.
using Attributes = std::map<std::uint32_t, std::string>;

// Each message names its D-Bus signature, and passes its fields in their order to the codec that writes or reads them,
// with the limits for the one that reads. A string_view is bytes that whoever writes, or the message that was read,
// keeps.

struct Nothing {
  static constexpr char kSignature[] = "";
  static void fields(auto &, auto &) {}
};

// The answer of a method that has nothing to give but its outcome.
struct Code {
  static constexpr char kSignature[] = "i";
  std::int32_t code = 0;
  static void fields(auto &codec, auto &self) { codec.number(self.code); }
};

inline constexpr std::int32_t kInteractionAllowed = 1;  // a person may be asked
inline constexpr std::int32_t kWillAskAgain = 2;        // where nobody can be; that is not told in the log then

struct Authorize {
  static constexpr char kSignature[] = "i";
  std::int32_t flags = 0;
  static void fields(auto &codec, auto &self) { codec.number(self.flags); }
};

// A path is bytes, not text.
struct TellOfReadableSecrets {
  static constexpr char kSignature[] = "ay";
  std::string path;
  static void fields(auto &codec, auto &self) { codec.bytes(self.path, kMaximumText); }
};

struct ReadPreferencesReply {
  static constexpr char kSignature[] = "iayay";
  std::int32_t error = 0;
  std::string propertyList;
  std::string signature;
  static void fields(auto &codec, auto &self) {
    codec.number(self.error);
    codec.bytes(self.propertyList);
    codec.bytes(self.signature);
  }
};

struct CommitPreferences {
  static constexpr char kSignature[] = "ayay";
  std::string_view propertyList;
  std::string_view signature;
  static void fields(auto &codec, auto &self) {
    codec.bytes(self.propertyList);
    codec.bytes(self.signature);
  }
};

struct CommitPreferencesReply {
  static constexpr char kSignature[] = "iay";
  std::int32_t error = 0;
  std::string signature;
  static void fields(auto &codec, auto &self) {
    codec.number(self.error);
    codec.bytes(self.signature);
  }
};

// Its message is wiped when it goes.
struct AddKeychainItem {
  static constexpr char kSignature[] = "a(uay)aysas";
  Attributes attributes;
  std::string_view secret;
  std::string accessDescription;
  std::vector<std::string> trustedPaths;
  static void fields(auto &codec, auto &self) {
    codec.sensitive();
    codec.attributes(self.attributes, kMaximumAttributes);
    codec.bytes(self.secret);
    codec.text(self.accessDescription, kMaximumText);
    codec.texts(self.trustedPaths, kMaximumPaths);
  }
};

struct AddKeychainItemReply {
  static constexpr char kSignature[] = "is";
  std::int32_t status = 0;
  std::string item;
  static void fields(auto &codec, auto &self) {
    codec.number(self.status);
    codec.text(self.item, kMaximumIdentifier);
  }
};

struct FindKeychainItems {
  static constexpr char kSignature[] = "a(uay)";
  Attributes attributes;
  static void fields(auto &codec, auto &self) { codec.attributes(self.attributes, kMaximumAttributes); }
};

struct FindKeychainItemsReply {
  static constexpr char kSignature[] = "ias";
  std::int32_t status = 0;
  std::vector<std::string> items;
  static void fields(auto &codec, auto &self) {
    codec.number(self.status);
    codec.texts(self.items);
  }
};

struct DeleteKeychainItem {
  static constexpr char kSignature[] = "s";
  std::string item;
  static void fields(auto &codec, auto &self) { codec.text(self.item, kMaximumIdentifier); }
};

struct StartLink {
  static constexpr char kSignature[] = "sayb";
  std::string serviceID;
  std::string_view userOptions;  // for dictionaryFrom()
  bool linger = false;
  static void fields(auto &codec, auto &self) {
    codec.text(self.serviceID, kMaximumIdentifier);
    codec.bytes(self.userOptions, kMaximumOptions);
    codec.flag(self.linger);
  }
};

struct StopLink {
  static constexpr char kSignature[] = "sb";
  std::string serviceID;
  bool force = false;
  static void fields(auto &codec, auto &self) {
    codec.text(self.serviceID, kMaximumIdentifier);
    codec.flag(self.force);
  }
};

struct LinkStatus {
  static constexpr char kSignature[] = "s";
  std::string serviceID;
  static void fields(auto &codec, auto &self) { codec.text(self.serviceID, kMaximumIdentifier); }
};

struct LinkStatusReply {
  static constexpr char kSignature[] = "iiay";
  std::int32_t status = 0;
  std::int32_t error = 0;
  std::string extendedStatus;  // for dictionaryFrom()
  static void fields(auto &codec, auto &self) {
    codec.number(self.status);
    codec.number(self.error);
    codec.bytes(self.extendedStatus);
  }
};

struct LinkStatusChanged {
  static constexpr char kSignature[] = "siiay";
  std::string serviceID;
  LinkStatusReply state;
  static void fields(auto &codec, auto &self) {
    codec.text(self.serviceID, kMaximumIdentifier);
    LinkStatusReply::fields(codec, self.state);
  }
};

// Both give what sd-bus gives. A negative errno of read() is that of a message that is not what it should be: -EMSGSIZE
// beyond a limit, -EINVAL for an attribute that comes twice; *CONTENTS is as it was then.
template <class Contents>
int append(sd_bus_message *message, const Contents &contents);
template <class Contents>
int read(sd_bus_message *message, Contents *contents);

// A dictionary as a property list; no bytes for a null VALUE, and for one that no property list can hold.
std::string bytesOf(const vpnctl::Value &value);
// A null Value for no bytes. An error for everything that is not a dictionary, or beyond kDictionaryLimits.
vpnctl::Result<vpnctl::Value> dictionaryFrom(std::string_view bytes);

}  // namespace wire
