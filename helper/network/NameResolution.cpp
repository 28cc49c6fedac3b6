#include "helper/network/NameResolution.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <string_view>
#include <system_error>
#include <thread>

#include "foundation/FileDescriptor.h"
#include "helper/common/IPv4Address.h"

namespace helper {

struct NameResolution::Question {
  std::string name;
  Resolver resolver;
  vpnctl::FileDescriptor done;  // an eventfd
  int error = 0;
  Addresses addresses;
  std::atomic<bool> answered{false};  // publishes error and addresses
};

namespace {

constexpr std::size_t kLongestName = 253;  // RFC 1035 section 2.3.4, as text

vpnctl::Error sentence(std::string text) { return {"NameResolution", 0, std::move(text)}; }

bool isHostName(std::string_view text) {
  const auto allowed = [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_';
  };
  // Without a letter it is a number that went wrong, and the system's resolver would guess at it ("1.2" is 1.0.0.2).
  const auto letter = [](char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; };
  return text.size() <= kLongestName && std::all_of(text.begin(), text.end(), allowed) &&
         std::any_of(text.begin(), text.end(), letter) && text.front() != '-' && text.front() != '.' &&
         text.find("..") == std::string_view::npos && text.substr(0, 2) != "0x";
}

bool canBeServer(in_addr address) {
  const std::uint32_t number = ntohl(address.s_addr);
  return number >> 24 != 0 && number >> 28 < 0xe;  // neither "this network" nor multicast and beyond
}

}  // namespace

vpnctl::Result<in_addr> NameResolution::parse(const std::string &text) {
  in6_addr other{};
  if (text.empty()) return sentence("The configuration names no server; set its address or its name.");
  if (const auto address = addressFrom(text)) {
    if (canBeServer(*address)) return *address;
    return sentence("No server can have the address " + text + "; set the address or the name of the VPN server.");
  }
  if (inet_pton(AF_INET6, text.c_str(), &other) == 1)
    return sentence(
        "The server address " + text +
        " is an IPv6 address, and these tunnels run over IPv4 only; set the server's IPv4 address or name.");
  if (!isHostName(text))
    return sentence("The server address \"" + text.substr(0, kLongestName) +
                    "\" is neither an IPv4 address nor the name of a host.");
  return in_addr{INADDR_ANY};
}

NameResolution::Resolver NameResolution::systemResolver() {
  return [](const std::string &name, Addresses &addresses) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int error = getaddrinfo(name.c_str(), nullptr, &hints, &found);
    if (error != 0) return error;
    for (const addrinfo *each = found; each != nullptr; each = each->ai_next)
      addresses.push_back(reinterpret_cast<const sockaddr_in *>(each->ai_addr)->sin_addr);
    freeaddrinfo(found);
    return 0;
  };
}

NameResolution::NameResolution(sd_event *event, const std::string &text, Handler handler, Resolver resolver,
                               std::chrono::milliseconds deadline)
    : handler_(std::move(handler)), name_(text) {
  const auto parsed = parse(text);
  if (!parsed || parsed->s_addr != INADDR_ANY) {
    const auto result = parsed ? vpnctl::Result<Addresses>(Addresses{*parsed}) : parsed.error();
    answer_ = linux::EventSource::soon(event, [this, result] { answer(result); });
    return;
  }
  question_ = std::make_shared<Question>();
  question_->name = text;
  question_->resolver = std::move(resolver);
  question_->done.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!question_->done) throw std::system_error(errno, std::generic_category(), "eventfd");
  answer_ = linux::EventSource::io(event, question_->done.get(), EPOLLIN, [this](std::uint32_t) { answered(); });
  deadline_ = linux::EventSource::timer(event, deadline, [this] {
    answer_.reset();
    answer(sentence("The name of the server, " + name_ +
                    ", could not be looked up in time; check this machine's name service or set the address."));
  });
  // Signals belong to the loop's thread: the new one inherits a mask without holes.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  std::thread([question = question_] {
    question->error = question->resolver(question->name, question->addresses);
    question->answered = true;
    const std::uint64_t one = 1;
    static_cast<void>(!::write(question->done.get(), &one, sizeof one));
  }).detach();
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

NameResolution::~NameResolution() = default;

void NameResolution::answered() {
  if (!question_->answered) return;
  answer_.reset();
  deadline_.reset();
  if (question_->error != 0)
    return answer(sentence("The name of the server, " + name_ + ", could not be looked up (" +
                           gai_strerror(question_->error) + "); check its spelling and this machine's name service."));
  Addresses usable;
  for (const in_addr address : question_->addresses)
    if (usable.size() < kMost && canBeServer(address) &&
        std::ranges::find(usable, address.s_addr, &in_addr::s_addr) == usable.end())
      usable.push_back(address);
  if (usable.empty())
    return answer(sentence("The name of the server, " + name_ + ", stands for an address that no server can have."));
  answer(usable);
}

void NameResolution::answer(const vpnctl::Result<Addresses> &addresses) {
  // A copy, because whoever hears the answer destroys us.
  const Handler handler = handler_;
  handler(addresses);
}

}  // namespace helper
