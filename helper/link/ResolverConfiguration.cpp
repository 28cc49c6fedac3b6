#include "helper/link/ResolverConfiguration.h"

#include <net/if.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "helper/ChildProcess.h"
#include "helper/link/ExtendedStatus.h"
#include "helper/link/FileReplacement.h"

namespace helper {

using foundation::errnoError;
using foundation::Status;

namespace {

constexpr std::chrono::milliseconds kProgramDeadline{2000};

std::string nameserverLines(const std::vector<in_addr> &servers) {
  std::string lines;
  for (const in_addr server : servers) lines += "nameserver " + textOf(server) + "\n";
  return lines;
}

class Call {
 public:
  Call(sd_bus *bus, const char *method) : bus_(bus) {
    result_ = sd_bus_message_new_method_call(bus, &message_, "org.freedesktop.resolve1", "/org/freedesktop/resolve1",
                                             "org.freedesktop.resolve1.Manager", method);
  }
  Call(const Call &) = delete;
  Call &operator=(const Call &) = delete;
  ~Call() { sd_bus_message_unref(message_); }

  template <class... Arguments>
  void append(const char *types, Arguments... arguments) {
    if (result_ >= 0) result_ = sd_bus_message_append(message_, types, arguments...);
  }
  void open(char kind, const char *contents) {
    if (result_ >= 0) result_ = sd_bus_message_open_container(message_, kind, contents);
  }
  void close() {
    if (result_ >= 0) result_ = sd_bus_message_close_container(message_);
  }
  void bytes(const void *data, std::size_t size) {
    if (result_ >= 0) result_ = sd_bus_message_append_array(message_, 'y', data, size);
  }
  // Nobody waits for the answer: the names of the tunnel are of no use before resolved has got round to them anyway.
  int send() { return result_ < 0 ? result_ : sd_bus_send(bus_, message_, nullptr); }

 private:
  sd_bus *bus_;
  sd_bus_message *message_ = nullptr;
  int result_ = 0;
};

}  // namespace

std::string resolverFile(const std::string &before, const std::vector<in_addr> &servers) {
  std::string text = nameserverLines(servers);
  std::istringstream lines(before);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string keyword;
    words >> keyword;
    if (keyword != "nameserver") text += line + "\n";
  }
  return text;
}

ResolverConfiguration::ResolverConfiguration(sd_event *event, Journal &journal, Paths paths)
    : event_(event), journal_(journal), paths_(std::move(paths)) {}

ResolverConfiguration::~ResolverConfiguration() {
  if (bus_ == nullptr) return;
  sd_bus_detach_event(bus_);
  sd_bus_close_unref(bus_);
}

Status ResolverConfiguration::apply(const std::string &interface, const std::vector<in_addr> &servers, bool primary) {
  if (servers.empty()) return {};
  if (::access(paths_.resolved.c_str(), F_OK) == 0) return tellResolved(interface, servers, primary);
  if (!primary) return {};
  for (const std::string &program : paths_.resolvconf)
    if (::access(program.c_str(), X_OK) == 0) return runResolvconf(program, interface, servers);
  return editFile(servers);
}

Status ResolverConfiguration::tellResolved(const std::string &interface, const std::vector<in_addr> &servers,
                                           bool primary) {
  const int index = static_cast<int>(if_nametoindex(interface.c_str()));
  int result = bus_ == nullptr ? sd_bus_open_system(&bus_) : 0;
  if (result >= 0) result = sd_bus_attach_event(bus_, event_, 0);
  if (result >= 0) {
    Call call(bus_, "SetLinkDNS");
    call.append("i", index);
    call.open('a', "(iay)");
    for (const in_addr server : servers) {
      call.open('r', "iay");
      call.append("i", AF_INET);
      call.bytes(&server, sizeof server);
      call.close();
    }
    call.close();
    result = call.send();
  }
  if (result >= 0) {
    Call call(bus_, "SetLinkDefaultRoute");
    call.append("ib", index, primary ? 1 : 0);
    result = call.send();
  }
  if (result >= 0 && primary) {
    // The root domain, routing only: every name is asked for here.
    Call call(bus_, "SetLinkDomains");
    call.append("ia(sb)", index, 1, ".", 1);
    result = call.send();
  }
  return result >= 0 ? Status() : errnoError(-result, "tell systemd-resolved the name servers");
}

Status ResolverConfiguration::runResolvconf(const std::string &program, const std::string &interface,
                                            const std::vector<in_addr> &servers) {
  const std::string lines = nameserverLines(servers);
  const foundation::FileDescriptor input(::memfd_create("name servers", MFD_CLOEXEC));
  if (!input || ::write(input.get(), lines.data(), lines.size()) != static_cast<ssize_t>(lines.size()) ||
      ::lseek(input.get(), 0, SEEK_SET) < 0)
    return errnoError(errno, "write the name servers for " + program);
  const std::string key = interface + ".vpnctl";
  if (Status noted = journal_.note(ResolvconfRecord{program, key}); !noted) return noted;
  auto process =
      ChildProcess::spawn({program, "-a", key}, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"}, {.input = input.get()});
  if (!process) return process.error();
  if (!process->waitFor(kProgramDeadline)) return errnoError(ETIMEDOUT, "run " + program);
  if (const ChildProcess::End &end = process->end(); !end.exited || end.code != 0)
    return foundation::Error{"resolvconf", end.code, program + " -a ends with status " + std::to_string(end.code)};
  return {};
}

Status ResolverConfiguration::editFile(const std::vector<in_addr> &servers) {
  auto file = currentFile(paths_.file);
  if (!file) return file.error();
  std::string before = file->bytes.value_or("");
  if (file->linkTarget) {
    std::ifstream target(paths_.file);
    std::ostringstream text;
    text << target.rdbuf();
    before = text.str();
  }
  file->replacement = resolverFile(before, servers);
  if (Status noted = journal_.note(*file); !noted) return noted;
  if (Status put = putReplacement(*file); !put) {
    static_cast<void>(journal_.forgetLast());
    return put;
  }
  return {};
}

}  // namespace helper
