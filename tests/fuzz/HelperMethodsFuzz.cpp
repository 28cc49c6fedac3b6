// The helper's methods as they come over its wire: any run of calls, right or wrong, whole, cut or garbled, with or
// without somebody who reads the answers. It goes on to serve or ends in order; every call that wants an answer gets
// one, of the kind that is documented; nothing is done to the machine that a right call has not asked for; and whatever
// has been written can be read by the next helper.
//
// The input is a program of steps. It begins with how the bytes are cut into pieces on their way.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Assertion.h"
#include "tests/fuzz/HelperCalls.h"
#include "tests/fuzz/RecordedHelper.h"
#include "tests/fuzz/SplitInput.h"
#include "wire/HelperInterface.h"
#include "wire/StatusCodes.h"

namespace {

using fuzz::Call;
using fuzz::Deeds;
using fuzz::Input;
using fuzz::Method;
using fuzz::Received;
using fuzz::RecordedHelper;

constexpr int kMaximumSteps = 16;
constexpr int kMaximumCalls = 64;  // more than may stay unread
constexpr int kMaximumPieces = 32;
constexpr std::size_t kMaximumSplit = 512;
constexpr std::size_t kLong = 8192;  // bytes, which take the helper a while; these are cut in a few places only
constexpr std::size_t kMaximumSplitOfLong = 8;
constexpr std::size_t kNowhere = SIZE_MAX;

// What has been asked since the last look, and what of it has been answered.
class Questions {
 public:
  void ask(const Call &call) { calls_.insert_or_assign(call.serial, call); }
  // Bytes that may be anything.
  void askAnything(std::string_view bytes) { anything_ += bytes; }

  // Of bytes that may be anything, nobody knows where they end.
  void forget() { calls_.clear(); }

  void answered(const Received &answer, bool inSync) {
    const auto found = calls_.find(answer.replySerial);
    FOUNDATION_ASSERT(found != calls_.end() || !inSync);
    if (!inSync || found->second.promise == Call::Promise::any) return;
    Question &question = found->second;
    // Not twice; not without being asked for it.
    FOUNDATION_ASSERT(question.wantsAnswer && !question.answer);
    check(question, answer);
    question.answer = answer;
  }

  void expectAllAnswered() const {
    for (const auto &[serial, question] : calls_)
      FOUNDATION_ASSERT(!question.wantsAnswer || question.answer || question.promise == Call::Promise::any);
  }

  // Compares what was done with what it was asked for. Whoever has ENDED takes his link down unasked.
  void check(const Deeds &deeds, bool ended) const {
    FOUNDATION_ASSERT(!deeds.elsewhere);
    FOUNDATION_ASSERT(deeds.preferences <= extent({Method::commitPreferences}));
    FOUNDATION_ASSERT(deeds.keychain <= extent({Method::addKeychainItem, Method::deleteKeychainItem}));
    FOUNDATION_ASSERT(deeds.linksStarted <= static_cast<int>(deeds.linksMade.size()));
    for (const std::string &service : deeds.linksMade) FOUNDATION_ASSERT(mayStart(service));
    FOUNDATION_ASSERT(deeds.linksStopped == 0 || ended || extent({Method::stopLink}) != Deeds::Extent::none);
  }

 private:
  struct Question : Call {
    Question(const Call &call) : Call(call) {}
    std::optional<Received> answer;
  };

  static void check(const Question &question, const Received &answer) {
    if (answer.type == fuzz::methodError) {
      const bool isAboutArguments = answer.errorName == "org.freedesktop.DBus.Error.InvalidArgs";
      // An exception on the way, which the first preferences have a service for.
      const bool isFailure = question.method == Method::startLink && answer.errorName.starts_with("System.Error.");
      FOUNDATION_ASSERT(question.promise == Call::Promise::error || isAboutArguments || isFailure);
      return;
    }
    FOUNDATION_ASSERT(question.promise == Call::Promise::result);
    const auto &methods = fuzz::methods();
    const auto method =
        std::ranges::find_if(methods, [&](const auto &known) { return known.method == question.method; });
    FOUNDATION_ASSERT(method != methods.end() && answer.signature == method->results && answer.code());
  }

  // How far the calls of METHODS may have gone.
  Deeds::Extent extent(std::initializer_list<Method> methods) const {
    Deeds::Extent most = Deeds::Extent::none;
    for (const auto &[serial, question] : calls_)
      if (std::ranges::find(methods, question.method) != methods.end()) most = std::max(most, extentOf(question));
    for (const auto &known : fuzz::methods())
      if (std::ranges::find(methods, known.method) != methods.end() && anything_.find(known.name) != std::string::npos)
        most = Deeds::Extent::replaced;
    return most;
  }

  static Deeds::Extent extentOf(const Question &question) {
    if (question.promise == Call::Promise::error) return Deeds::Extent::none;
    if (!question.answer) return Deeds::Extent::replaced;  // nobody knows how it went
    const auto code = question.answer->code();
    if (!code || *code == wire::kSCStatusInvalidArgument) return Deeds::Extent::none;
    return *code == 0 ? Deeds::Extent::replaced : Deeds::Extent::beside;
  }

  bool mayStart(const std::string &service) const {
    const bool asked = std::ranges::any_of(calls_, [&](const auto &entry) {
      const Question &question = entry.second;
      if (question.method != Method::startLink || question.promise == Call::Promise::error) return false;
      if (question.promise == Call::Promise::result && question.service != service) return false;
      // Started, or the start has failed on the way.
      return !question.answer || question.answer->code().value_or(0) == 0;
    });
    return asked || anything_.find(wire::kStartLink) != std::string::npos;
  }

  std::map<std::uint32_t, Question> calls_;
  std::string anything_;
};

// One input's run. The helper and its connection are kept for the next while nothing has become of them.
class Run {
 public:
  Run(Input input, std::size_t splitAt) : input_(input), splitAt_(splitAt) {
    if (!helper()) helper() = std::make_unique<RecordedHelper>();
    const std::uint8_t cut = input_.byte();
    pieceSize_ = cut < 0xe0 ? 0 : cut - 0xdfU;
  }

  // How many bytes went to the helper.
  std::size_t play() {
    for (int step = 0; step < kMaximumSteps && !input_.empty() && !helper()->hasEnded(); ++step) {
      play(input_.byte());
      if (!deaf_) look();
    }
    end();
    return sent_;
  }

 private:
  // Lives from run to run. Never destroyed: at the process's end nobody knows who has closed what.
  static std::unique_ptr<RecordedHelper> &helper() {
    static auto &helper = *new std::unique_ptr<RecordedHelper>;
    return helper;
  }
  static fuzz::Memory &memory() {
    static fuzz::Memory memory;
    return memory;
  }

  void play(std::uint8_t step) {
    switch (step >> 4) {
      default:
        return call(1);
      case 9:
        return call(deaf_ ? step % 16 * 4 : step % 4 + 1);
      case 10:
        return call(1, step % 8);
      case 11:
        return otherMessage();
      case 12:
        return garbledCall();
      case 13:
        return sendGarbage(input_.bytes(input_.byte()));
      case 14: {
        const Call cut = nextCall();
        return sendGarbage(std::string_view(cut.bytes).substr(0, input_.byte() * 2U));
      }
      case 15:
        deaf_ = !deaf_;
        used_ = true;
        return helper()->setDeaf(deaf_);
    }
  }

  Call nextCall() {
    Call call = fuzz::nextCall(input_, ++serial_, memory());
    lingers_ = lingers_ || call.lingers;
    return call;
  }

  // One call, COUNT times in a row with other serials.
  void call(int count, int descriptors = 0) {
    Call call = nextCall();
    std::string all;
    for (int i = 0; i < count && calls_ < kMaximumCalls; ++i, ++calls_) {
      if (i > 0) call.serial = ++serial_;
      std::memcpy(call.bytes.data() + 8, &call.serial, sizeof call.serial);
      questions_.ask(call);
      all += call.bytes;
    }
    if (descriptors > 0 || !inSync_) return sendAnything(all, descriptors);  // descriptors are not wanted here
    send(all);
  }

  // Nothing that wants an answer, or no message at all.
  void otherMessage() {
    Call call = nextCall();
    call.bytes[1] = static_cast<char>(input_.byte() % 8);
    sendAnything(call.bytes);
  }

  void garbledCall() {
    Call call = nextCall();
    for (int i = input_.byte() % 4; i >= 0; --i) {
      const std::size_t place = input_.byte() * 4U % call.bytes.size();
      std::uint32_t value = input_.number();
      // As a length, it is soon reached, or more than a message may have. In between lie megabytes to wait for, which
      // only cost time.
      if (value > 0xffff) value |= 0x8000000;
      std::memcpy(&call.bytes[place], &value, std::min(sizeof value, call.bytes.size() - place));
    }
    sendGarbage(call.bytes);
  }

  // With what comes next, it may ask for a link that stays.
  void sendGarbage(std::string_view bytes) {
    lingers_ = true;
    sendAnything(bytes);
  }

  void sendAnything(std::string_view bytes, int descriptors = 0) {
    questions_.askAnything(bytes);
    if (!bytes.empty()) inSync_ = false;
    send(bytes, descriptors);
  }

  void send(std::string_view bytes, int descriptors = 0) {
    for (int pieces = 0; !bytes.empty(); ++pieces) {
      std::size_t size = bytes.size();
      if (pieceSize_ > 0 && inSync_ && pieces < kMaximumPieces) size = std::min(size, pieceSize_);
      if (splitAt_ > sent_) size = std::min(size, splitAt_ - sent_);
      helper()->send(bytes.substr(0, size), descriptors);
      descriptors = 0;
      bytes.remove_prefix(size);
      sent_ += size;
    }
  }

  // At the answers, and at what was done for them.
  void look() {
    for (const Received &answer : helper()->answers()) {
      if (answer.type == fuzz::signalMessage) {
        FOUNDATION_ASSERT(answer.member == wire::kLinkStatusChanged && answer.signature == "siiay");
        continue;
      }
      FOUNDATION_ASSERT(answer.type == fuzz::methodReturn || answer.type == fuzz::methodError);
      questions_.answered(answer, inSync_);
      remember(answer);
    }
    if (inSync_ && !helper()->hasEnded()) questions_.expectAllAnswered();
    const Deeds &deeds = helper()->deeds();
    questions_.check(deeds, helper()->hasEnded());
    if (deeds.preferences == Deeds::Extent::replaced) FOUNDATION_ASSERT(helper()->preferencesCanBeRead());
    used_ = used_ || deeds != Deeds();
    helper()->forgetDeeds();
    questions_.forget();
  }

  // What an answer has at its end, calls can give back.
  void remember(const Received &answer) {
    if (answer.signature == "is" && answer.body.size() > 8) memory().item = answer.body.substr(8, 36);
    if (answer.signature == "iay" && answer.body.size() > 8) memory().signature = answer.body.substr(8);
  }

  void end() {
    if (deaf_) {
      helper()->setDeaf(false);
      look();
    }
    if (inSync_ && !used_ && !helper()->hasEnded()) return;
    helper()->leave(lingers_);
    const Deeds &deeds = helper()->deeds();
    FOUNDATION_ASSERT(deeds.preferences == Deeds::Extent::none && deeds.keychain == Deeds::Extent::none);
    FOUNDATION_ASSERT(!deeds.elsewhere && deeds.linksMade.empty() && deeds.linksStarted == 0);
    if (used_) FOUNDATION_ASSERT(helper()->strayFile().empty());
    helper().reset();
    memory() = {};
  }

  Input input_;
  const std::size_t splitAt_;
  std::size_t pieceSize_ = 0;  // 0: whole
  std::size_t sent_ = 0;
  std::uint32_t serial_ = 0;
  int calls_ = 0;
  Questions questions_;
  bool deaf_ = false;
  bool inSync_ = true;    // both sides agree where a message begins
  bool used_ = false;     // something has become of the helper
  bool lingers_ = false;  // a link, perhaps
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
  Run(Input({reinterpret_cast<const char *>(data), size}), kNowhere).play();
  return 0;
}

extern "C" bool fuzzSplitInput(const std::uint8_t *data, std::size_t size, std::size_t at) {
  // What is longer repeats a call, or is long for an array's sake.
  const std::size_t sent = Run(Input({reinterpret_cast<const char *>(data), size}), at).play();
  return sent > at && at + 1 < (sent > kLong ? kMaximumSplitOfLong : kMaximumSplit);
}
