#include "tests/fuzz/HelperCalls.h"

#include <array>
#include <utility>

#include "helper/store/KeychainItem.h"
#include "tests/fuzz/RecordedHelper.h"
#include "tests/support/SharedTexts.h"
#include "wire/HelperInterface.h"

namespace fuzz {

namespace {

constexpr std::size_t kLargeText = 4100;    // beyond what one text may have
constexpr std::size_t kLargeBytes = 65600;  // beyond what options and secrets may have

const std::string kOptions =
    "<plist version=\"1.0\"><dict><key>PPP</key><dict><key>CommRemoteAddress</key><string>at-once</string></dict>"
    "</dict></plist>";
const std::string kOtherPreferences =
    "<plist version=\"1.0\"><dict><key>NetworkServices</key><dict><key>UP</key><dict><key>PPP</key><dict>"
    "<key>CommRemoteAddress</key><string>up</string></dict></dict></dict></dict></plist>";
const std::string kWrongPreferences = "<plist version=\"1.0\"><dict><key>Sets</key><array/></dict></plist>";

std::size_t alignmentOf(char type) {
  switch (type) {
    case 'n':
    case 'q':
      return 2;
    case 'x':
    case 't':
    case 'd':
    case '(':
    case '{':
      return 8;
    case 'y':
    case 'g':
    case 'v':
      return 1;
    default:
      return 4;
  }
}

// The first complete type of SIGNATURE, taken off; whatever is there when it is not well-formed.
std::string_view takeType(std::string_view &signature) {
  std::size_t size = 0;
  while (size < signature.size() && signature[size] == 'a') ++size;
  int depth = 0;
  while (size < signature.size()) {
    const char type = signature[size++];
    if (type == '(' || type == '{') ++depth;
    if (type == ')' || type == '}') --depth;
    if (depth <= 0) break;
  }
  const std::string_view type = signature.substr(0, size);
  signature.remove_prefix(size);
  return type;
}

// The arguments of one call, appended from an input.
class Arguments {
 public:
  Arguments(Input &input, const Memory &memory, Call &call) : input_(input), memory_(memory), call_(call) {}

  std::string all(std::string_view signature) {
    while (!signature.empty()) value(takeType(signature));
    return bytes_.take();
  }

 private:
  void value(std::string_view type) {
    switch (type.empty() ? '\0' : type.front()) {
      case 'y':
        return bytes_.integer(input_.byte(), 1);
      case 'n':
      case 'q':
        return bytes_.integer(input_.number(), 2);
      case 'b':
        return boolean();
      case 'u':
        return bytes_.integer(tag(), 4);
      case 'i':
      case 'h':
        return bytes_.integer(input_.number(), 4);
      case 'x':
      case 't':
      case 'd':
        return bytes_.integer(input_.number(), 8);
      case 's':
      case 'o':
        return text();
      case 'g':
        return bytes_.signature(input_.bytes(input_.byte() % 8));
      case 'v':
        return variant();
      case 'a':
        return array(type.substr(1));
      case '(':
      case '{':
        bytes_.align(8);
        type = type.substr(1, type.size() - 2);
        while (!type.empty()) value(takeType(type));
        return;
      default:
        return;
    }
  }

  void boolean() {
    const std::uint8_t choice = input_.byte();
    call_.lingers = call_.lingers || choice != 0;
    bytes_.integer(choice < 0xf0 ? choice & 1 : choice, 4);
  }

  std::uint32_t tag() {
    constexpr std::array kTags = {helper::kLabelAttribute, helper::kAccountAttribute, helper::kServiceAttribute,
                                  helper::kDescriptionAttribute};
    const std::uint8_t choice = input_.byte();
    return choice < 0xf0 ? kTags[choice % kTags.size()] : input_.number();
  }

  void text() {
    const auto &services = RecordedHelper::services();
    const std::uint8_t choice = input_.byte();
    std::string chosen;
    if (choice < 0x60)
      chosen = services[choice % services.size()];
    else if (choice < 0x80)
      chosen = memory_.item;
    else if (choice < 0x90)
      chosen = choice % 2 == 0 ? "/usr/sbin/pppd" : "0123ABCD-4567-4EF0-89AB-0123456789AB";
    else if (choice < 0xf8)
      chosen = input_.bytes(choice % 32);
    else
      chosen.assign(choice < 0xfc ? 129 : large(kLargeText), 'A');
    if (call_.service.empty()) call_.service = chosen;
    bytes_.text(chosen);
  }

  void variant() {
    constexpr std::array<std::string_view, 6> kTypes = {"s", "ay", "u", "(su)", "a{sv}", "v"};
    const std::string_view type = ++depth_ > 8 ? "u" : kTypes[input_.byte() % kTypes.size()];
    bytes_.signature(type);
    value(type);
  }

  void array(std::string_view element) {
    const std::size_t begin = bytes_.openArray(element.empty() ? 1 : alignmentOf(element.front()));
    if (element == "y") {
      bytes_.bytes(blob());
    } else {
      constexpr std::array<int, 4> kMany = {16, 17, 64, 65};
      const std::uint8_t choice = input_.byte();
      const int count = choice < 0xf0 ? choice % 4 : kMany[choice % kMany.size()];
      for (int i = 0; i < count; ++i) value(element);
    }
    bytes_.closeArray(begin);
  }

  std::string blob() {
    const std::uint8_t choice = input_.byte();
    if (choice < 0x20) return {};
    if (choice < 0x38) return RecordedHelper::firstPreferences();
    if (choice < 0x50) return kOtherPreferences;
    if (choice < 0x60) return kWrongPreferences;
    if (choice < 0x80) return memory_.signature;
    if (choice < 0x90) return kOptions;
    if (choice < 0xfc) return std::string(input_.bytes(choice % 64));
    // Few bytes on the way that say much: more than may be read, or more than may be written.
    if (choice == 0xfd) return support::sharedTexts(large(30000), std::string(1000, 'x'));
    if (choice == 0xfe) return support::sharedTexts(large(10000), std::string(400, '>'));
    return std::string(large(kLargeBytes), choice == 0xff ? ' ' : 'x');
  }

  // SIZE, once in a call: more would only take longer.
  std::size_t large(std::size_t size) { return std::exchange(hasLarge_, true) ? 1 : size; }

  Input &input_;
  const Memory &memory_;
  Call &call_;
  Marshaller bytes_;
  int depth_ = 0;
  bool hasLarge_ = false;
};

}  // namespace

const std::vector<MethodDescription> &methods() {
  static const std::vector<MethodDescription> all = {
      {Method::tellOfReadableSecrets, wire::kTellOfReadableSecrets, "ay", "i"},
      {Method::readPreferences, wire::kReadPreferences, "", "iayay"},
      {Method::commitPreferences, wire::kCommitPreferences, "ayay", "iay"},
      {Method::applyPreferences, wire::kApplyPreferences, "", "i"},
      {Method::addKeychainItem, wire::kAddKeychainItem, "a(uay)aysas", "is"},
      {Method::findKeychainItems, wire::kFindKeychainItems, "a(uay)", "ias"},
      {Method::deleteKeychainItem, wire::kDeleteKeychainItem, "s", "i"},
      {Method::startLink, wire::kStartLink, "sayb", "i"},
      {Method::stopLink, wire::kStopLink, "sb", "i"},
      {Method::linkStatus, wire::kLinkStatus, "s", "iiay"}};
  return all;
}

Call nextCall(Input &input, std::uint32_t serial, const Memory &memory) {
  constexpr std::array<std::string_view, 8> kOtherMembers = {
      "Format", "Ping", "GetMachineId", "Introspect", "Get", "GetAll", "GetManagedObjects", wire::kLinkStatusChanged};
  constexpr std::array<std::string_view, 6> kOtherInterfaces = {
      "org.freedesktop.DBus.Peer",          "org.freedesktop.DBus.Properties", "org.freedesktop.DBus.Introspectable",
      "org.freedesktop.DBus.ObjectManager", "org.freedesktop.DBus.Local",      "vpnctl.Helper2"};
  constexpr std::array<std::string_view, 5> kOtherPaths = {"/", "/vpnctl", "/vpnctl/Helper/x",
                                                           "/org/freedesktop/DBus/Local", "relative"};
  constexpr std::array<std::string_view, 14> kOtherSignatures = {
      "", "s", "ay", "sayb", "ayay", "a(uay)", "sb", "a{sv}", "v", "aas", "h", "(ii)", "as", "xdtnqog"};

  Call call;
  call.serial = serial;
  Header header;
  header.serial = serial;
  header.path = wire::kObjectPath;
  header.interface = wire::kInterface;

  const std::uint8_t which = input.byte();
  const std::uint8_t how = input.byte();
  const MethodDescription *method = which < 0xf0 ? &methods()[which % methods().size()] : nullptr;
  header.member = method != nullptr ? std::string_view(method->name) : kOtherMembers[which % kOtherMembers.size()];
  header.flags = (how & 1) != 0 ? kNoReplyExpected : 0;
  call.wantsAnswer = header.flags == 0;
  call.method = method != nullptr ? method->method : Method::none;
  call.promise = method != nullptr ? Call::Promise::result : Call::Promise::error;
  std::string_view right = method != nullptr ? method->arguments : "";

  // Elsewhere, nothing that is asked for can be had; the bus's own interfaces have answers of their own.
  if ((how >> 1 & 3) == 3) {
    header.path = kOtherPaths[input.byte() % kOtherPaths.size()];
    call.promise = Call::Promise::any;
    call.method = Method::none;
  }
  if ((how >> 3 & 3) == 3) {
    const std::uint8_t other = input.byte();
    header.interface = other < 0xc0 ? kOtherInterfaces[other % kOtherInterfaces.size()] : std::string_view();
    call.promise = Call::Promise::any;
    if (!header.interface.empty()) call.method = Method::none;
  }
  Arguments arguments(input, memory, call);
  std::string body;
  header.signature = right;
  switch (how >> 5) {
    case 7: {  // other types
      const std::uint8_t other = input.byte();
      header.signature = other < 0xf0 ? kOtherSignatures[other % kOtherSignatures.size()] : input.bytes(other % 16);
      if (other >= 0xf0)
        call.promise = Call::Promise::any;  // no signature, perhaps, and then no message
      else if (header.signature != right && call.promise == Call::Promise::result)
        call.promise = Call::Promise::error;
      body = arguments.all(header.signature);
      break;
    }
    case 6:  // the right types, but not their bytes
      body = input.bytes(input.byte() % 64);
      if (call.promise == Call::Promise::result) call.promise = Call::Promise::any;
      call.lingers = true;
      break;
    default:
      body = arguments.all(right);
  }
  call.bytes = message(header, body);
  return call;
}

}  // namespace fuzz
