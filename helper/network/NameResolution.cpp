#include "helper/network/NameResolution.h"

#include <netdb.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <system_error>
#include <thread>

#include "foundation/FileDescriptor.h"
#include "helper/common/ServerAddress.h"

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

vpnctl::Error sentence(std::string text) { return {"NameResolution", 0, std::move(text)}; }

}  // namespace

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
  const auto parsed = serverAddressFrom(text);
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
