#include "tests/fuzz/RecordedHelper.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <utility>

#include "foundation/Assertion.h"
#include "foundation/PropertyList.h"
#include "tests/support/ScriptedLink.h"
#include "tests/support/TemporaryFolder.h"

namespace fuzz {

using helper::LinkStatus;
using vpnctl::FileDescriptor;
using vpnctl::Result;
using vpnctl::Status;
using vpnctl::Value;

namespace {

constexpr int kMaximumTurns = 100'000;
constexpr std::uint64_t kEndDeadline = 10'000'000;  // microseconds; only a failure takes them
constexpr std::uintmax_t kLargestLog = 1 << 20;     // bytes
constexpr int kSmallBuffer = 1;                     // the kernel makes the least of it that it has
constexpr std::size_t kMaximumDescriptors = 4;

const support::TemporaryFolder &folder() {
  static const support::TemporaryFolder folder(support::TemporaryFolder::Place::memory);
  return folder;
}

std::string preferencesPath() { return folder().path("etc/preferences.plist"); }
std::string keychainFolder() { return folder().path("keychain"); }
std::string logPath() { return folder().path("ppp.log"); }

int nullDevice() {
  static const FileDescriptor device(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  return device.get();
}

int lowestFreeDescriptor() {
  nullDevice();
  const FileDescriptor free(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  return free.get();
}

// As a helper on a machine that has preferences but no keychain yet finds it.
void prepareFolder() {
  ::umask(077);
  ::mkdir(folder().path("etc").c_str(), 0755);
  support::writeFile(preferencesPath(), RecordedHelper::firstPreferences());
  std::error_code ignored;
  std::filesystem::remove_all(keychainFolder(), ignored);
  if (std::filesystem::file_size(logPath(), ignored) > kLargestLog) std::filesystem::remove(logPath(), ignored);
}

}  // namespace

// ---- The file system

void RecordingFileSystem::record(const std::string &path) {
  const auto atLeastBeside = [](Deeds::Extent &extent) { extent = std::max(extent, Deeds::Extent::beside); };
  if (path.starts_with(preferences_))
    atLeastBeside(deeds_.preferences);
  else if (path.starts_with(keychain_ + "/"))
    atLeastBeside(deeds_.keychain);
  else
    deeds_.elsewhere = true;
}

Result<FileDescriptor> RecordingFileSystem::open(const std::string &path, int flags, mode_t mode) {
  if ((flags & (O_ACCMODE | O_CREAT | O_TRUNC)) != O_RDONLY) record(path);
  return vpnctl::PosixFileSystem::open(path, flags, mode);
}

Status RecordingFileSystem::write(int file, std::string_view bytes, const std::string &path) {
  record(path);
  return vpnctl::PosixFileSystem::write(file, bytes, path);
}

Status RecordingFileSystem::rename(const std::string &from, const std::string &to) {
  record(from);
  record(to);
  if (to == preferences_) deeds_.preferences = Deeds::Extent::replaced;
  if (to == keychain_ + "/System.keychain") deeds_.keychain = Deeds::Extent::replaced;
  return vpnctl::PosixFileSystem::rename(from, to);
}

Status RecordingFileSystem::link(const std::string &from, const std::string &to) {
  record(from);
  record(to);
  return vpnctl::PosixFileSystem::link(from, to);
}

Status RecordingFileSystem::remove(const std::string &path) {
  record(path);
  if (path == preferences_) deeds_.preferences = Deeds::Extent::replaced;
  if (path == keychain_ + "/System.keychain" || path == keychain_ + "/SystemKey")
    deeds_.keychain = Deeds::Extent::replaced;
  return vpnctl::PosixFileSystem::remove(path);
}

// ---- The links

class RecordedLink : public helper::Link {
 public:
  RecordedLink(RecordedHelper &owner, std::unique_ptr<helper::Link> link) : owner_(owner), link_(std::move(link)) {
    owner_.link_ = this;
  }
  RecordedLink(const RecordedLink &) = delete;
  RecordedLink &operator=(const RecordedLink &) = delete;
  ~RecordedLink() override {
    if (owner_.link_ == this) owner_.link_ = nullptr;
  }

  void start() override {
    FOUNDATION_ASSERT(!std::exchange(started_, true));
    ++owner_.deeds_.linksStarted;
    link_->start();
  }
  void stop() override {
    FOUNDATION_ASSERT(started_);
    ++owner_.deeds_.linksStopped;
    link_->stop();
  }
  const LinkStatus &status() const override { return link_->status(); }
  bool isDown() const override { return link_->isDown(); }

 private:
  RecordedHelper &owner_;
  std::unique_ptr<helper::Link> link_;
  bool started_ = false;
};

helper::LinkFactory RecordedHelper::recordedLinks() {
  return [this, links = helper::testing::scriptedLinks(event_.get())](
             const Value &preferences, const helper::LinkRequest &request,
             helper::Link::StatusHandler handler) -> Result<std::unique_ptr<helper::Link>> {
    // One at a time, whatever is asked.
    FOUNDATION_ASSERT(link_ == nullptr || link_->isDown());
    // This one would end the process.
    const Value &entries = preferences["NetworkServices"][request.serviceID]["PPP"];
    const Value *laidOver = request.startOptions["PPP"].find("CommRemoteAddress");
    if (entries["CommRemoteAddress"] == Value("dies") || (laidOver != nullptr && *laidOver == Value("dies")))
      return vpnctl::Error{"Fuzz", 1, "there is no service"};
    auto link = links(preferences, request, std::move(handler));
    if (!link) return link.error();
    deeds_.linksMade.push_back(request.serviceID);
    return std::unique_ptr<helper::Link>(std::make_unique<RecordedLink>(*this, std::move(*link)));
  };
}

// ---- The helper

const std::vector<std::string> &RecordedHelper::services() {
  static const std::vector<std::string> names = {"UP", "AT-ONCE", "REFUSED", "STUCK", "THROWS", "THROWS-LATER"};
  return names;
}

const std::string &RecordedHelper::firstPreferences() {
  static const std::string bytes = [] {
    Value services{Value::Dictionary()};
    for (const std::string &name : RecordedHelper::services()) {
      std::string script = name;
      for (char &letter : script) letter = static_cast<char>(std::tolower(letter));
      services.set(name, Value::Dictionary{{"PPP", Value::Dictionary{{"CommRemoteAddress", script}}}});
    }
    return vpnctl::xmlPropertyList(Value::Dictionary{{"NetworkServices", services}}).value();
  }();
  return bytes;
}

RecordedHelper::RecordedHelper()
    : firstDescriptor_(lowestFreeDescriptor()), fileSystem_(preferencesPath(), keychainFolder(), deeds_) {
  prepareFolder();
  log_ = std::move(helper::PPPLog::open(logPath()).value());
  preferences_ = std::make_unique<helper::PreferencesStore>(preferencesPath(), fileSystem_, *log_);
  keychain_ = std::make_unique<helper::Keychain>(keychainFolder(), fileSystem_, *log_);
  FOUNDATION_ASSERT(sd_event_new(linux::Out(event_)) >= 0);
  authority_ = std::make_unique<helper::testing::ScriptedAuthority>(event_.get());
  service_ = std::make_unique<helper::HelperService>(event_.get(), *preferences_, *keychain_, recordedLinks(),
                                                     helper::HelperService::Users{*authority_}, *log_,
                                                     std::chrono::milliseconds(0));
  std::array<int, 2> pair = {-1, -1};
  FOUNDATION_ASSERT(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair.data()) == 0);
  socket_.reset(pair[0]);
  FOUNDATION_ASSERT(service_->serve(FileDescriptor(pair[1])));
  // The bus has made its buffers large: a tool that does not read would go unnoticed for megabytes.
  FOUNDATION_ASSERT(::setsockopt(pair[1], SOL_SOCKET, SO_SNDBUF, &kSmallBuffer, sizeof kSmallBuffer) == 0);
  const std::string greeting = std::string(1, '\0') + "AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n";
  send(greeting);
  // What it says to this are lines, "DATA" and "OK" and its identifier; from here on it is messages.
  FOUNDATION_ASSERT(received_.starts_with("DATA\r\nOK ") && received_.ends_with("\r\n"));
  received_.clear();
}

RecordedHelper::~RecordedHelper() {
  service_.reset();
  FOUNDATION_ASSERT(link_ == nullptr);
  event_.reset();
  keychain_.reset();
  preferences_.reset();
  log_.reset();
  socket_.reset();
  FOUNDATION_ASSERT(lowestFreeDescriptor() == firstDescriptor_);
}

void RecordedHelper::settle() {
  for (int turn = 0;; ++turn) {
    FOUNDATION_ASSERT(turn < kMaximumTurns);
    const bool hasRead = readAnswers();
    if (ended_) return;
    const int result = sd_event_run(event_.get(), 0);
    FOUNDATION_ASSERT(result >= 0);
    ended_ = sd_event_get_state(event_.get()) == SD_EVENT_FINISHED;
    if (result == 0 && !hasRead) return;
  }
}

bool RecordedHelper::readAnswers() {
  if (deaf_ || !socket_) return false;
  static std::array<char, 65536> buffer;
  const ssize_t count = ::recv(socket_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
  closed_ = closed_ || count == 0 || (count < 0 && errno == ECONNRESET);
  if (count <= 0) return false;
  received_.append(buffer.data(), static_cast<std::size_t>(count));
  return true;
}

void RecordedHelper::send(std::string_view bytes, int descriptors) {
  for (int turn = 0; !bytes.empty() && !ended_; ++turn) {
    FOUNDATION_ASSERT(turn < kMaximumTurns);
    iovec part = {const_cast<char *>(bytes.data()), bytes.size()};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int) * kMaximumDescriptors)> control = {};
    if (const auto count = std::min<std::size_t>(static_cast<std::size_t>(descriptors), kMaximumDescriptors);
        count > 0) {
      std::array<int, kMaximumDescriptors> sent;
      sent.fill(nullDevice());
      message.msg_control = control.data();
      message.msg_controllen = CMSG_SPACE(sizeof(int) * count);
      cmsghdr *header = CMSG_FIRSTHDR(&message);
      header->cmsg_level = SOL_SOCKET;
      header->cmsg_type = SCM_RIGHTS;
      header->cmsg_len = CMSG_LEN(sizeof(int) * count);
      std::memcpy(CMSG_DATA(header), sent.data(), sizeof(int) * count);
    }
    const ssize_t count = ::sendmsg(socket_.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0 && errno != EAGAIN) break;  // it has closed its end, and will say why
    if (count > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
      descriptors = 0;
    }
    settle();
  }
}

void RecordedHelper::setDeaf(bool deaf) {
  deaf_ = deaf;
  settle();
}

void RecordedHelper::leave(bool linger) {
  deaf_ = false;
  settle();
  socket_.reset();
  settle();
  if (linger && link_ != nullptr && !link_->isDown()) return;
  while (!ended_) {
    // With a deadline: what ends it may be a timer of its own.
    FOUNDATION_ASSERT(sd_event_run(event_.get(), kEndDeadline) > 0);
    ended_ = sd_event_get_state(event_.get()) == SD_EVENT_FINISHED;
  }
}

std::vector<Received> RecordedHelper::answers() {
  std::vector<Received> answers;
  while (auto message = takeMessage(received_)) answers.push_back(std::move(*message));
  return answers;
}

bool RecordedHelper::preferencesCanBeRead() {
  vpnctl::PosixFileSystem fileSystem;
  return static_cast<bool>(helper::PreferencesStore(preferencesPath(), fileSystem, *log_).read());
}

std::string RecordedHelper::strayFile() const {
  static const std::set<std::string> kKnown = {"etc",     "etc/preferences.plist",    "keychain",
                                               "ppp.log", "keychain/System.keychain", "keychain/SystemKey"};
  for (const auto &entry : std::filesystem::recursive_directory_iterator(folder().path())) {
    const std::string name = entry.path().string().substr(folder().path().size() + 1);
    if (!kKnown.contains(name)) return name;
  }
  return {};
}

}  // namespace fuzz
