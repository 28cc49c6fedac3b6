#include "helper/network/ResolverConfiguration.h"

#include <net/if.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "helper/common/IPv4Address.h"
#include "helper/network/FileReplacement.h"

namespace helper {

using vpnctl::errnoError;
using vpnctl::Status;

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kProgramDeadline{30000};  // a dozen shell scripts, on a slow machine

std::string nameserverLines(const std::vector<in_addr> &servers) {
  std::string lines;
  for (const in_addr server : servers) lines += "nameserver " + textOf(server) + "\n";
  return lines;
}

std::string searchLine(const std::vector<std::string> &domains, const std::string &others = {}) {
  std::string line = "search";
  for (const std::string &domain : domains) line += " " + domain;
  return line + others + "\n";
}

// A line of a resolv.conf, cut into its first two words.
struct Words {
  explicit Words(const std::string &line) { std::istringstream(line) >> keyword >> value; }
  std::string keyword;
  std::string value;
};

// The first of the programs that is there. systemd-resolved brings one too, which does nothing but tell the daemon.
std::string resolvconfProgram(const std::vector<std::string> &programs) {
  std::error_code ignored;
  for (const std::string &program : programs)
    if (::access(program.c_str(), X_OK) == 0 && fs::canonical(program, ignored).filename() != "resolvectl")
      return program;
  return {};
}

// What the program sorts by. It takes names that begin with "vpn" before those of wires, and among them in the order of
// the alphabet: that of the link which came up last comes first, as its routes do.
std::string newRecordKey(const std::string &interface) {
  constexpr std::uint64_t kLast = 999999999999;  // ms: more than any machine stays up
  timespec sinceBoot{};
  ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot);
  const auto milliseconds =
      static_cast<std::uint64_t>(sinceBoot.tv_sec) * 1000 + static_cast<std::uint64_t>(sinceBoot.tv_nsec) / 1000000;
  std::array<char, 24> prefix{};
  std::snprintf(prefix.data(), prefix.size(), "vpn%012" PRIu64 ".", kLast - milliseconds % kLast);
  return prefix.data() + interface;
}

}  // namespace

std::string resolverFile(const std::string &before, const std::vector<in_addr> &servers,
                         const std::vector<std::string> &domains) {
  std::string text;
  std::string search;  // of several such lines the last one counts
  std::istringstream lines(before);
  for (std::string line; std::getline(lines, line);) {
    const std::string keyword = Words(line).keyword;
    if (keyword == "nameserver") continue;
    const bool searches = keyword == "search" || keyword == "domain";
    if (searches) search = line.substr(line.find(keyword) + keyword.size());
    if (!searches || domains.empty()) text += line + "\n";
  }
  return nameserverLines(servers) + (domains.empty() ? "" : searchLine(domains, search)) + text;
}

// Asks for the same, whoever is told.
bool ResolverConfiguration::Wish::asksForTheSameAs(const Wish &other) const {
  const auto same = [](in_addr a, in_addr b) { return a.s_addr == b.s_addr; };
  return interface == other.interface && primary == other.primary && std::ranges::equal(servers, other.servers, same);
}

ResolverConfiguration::ResolverConfiguration(sd_event *event, Journal &journal, Paths paths,
                                             std::vector<std::string> domains,
                                             std::function<void(const std::string &)> tell)
    : event_(event),
      journal_(journal),
      paths_(std::move(paths)),
      domains_(std::move(domains)),
      tell_(std::move(tell)) {}

ResolverConfiguration::Owner ResolverConfiguration::ownerOf(const Paths &paths) {
  // Not canonical(): a link that leads nowhere yet leads to its owner all the same.
  std::error_code ignored;
  fs::path place = fs::path(paths.file).lexically_normal();
  for (int links = 0; links < 40 && fs::is_symlink(place, ignored); ++links)
    place = (place.parent_path() / fs::read_symlink(place, ignored)).lexically_normal();
  const std::string folder = place.parent_path().filename();
  if (place == fs::path(paths.resolvedStub)) return Owner::resolvedStub;
  if (place.parent_path() == fs::path(paths.resolved))
    return place.filename() == "stub-resolv.conf" ? Owner::resolvedStub : Owner::resolvedUplinks;
  if (folder == "resolvconf") return Owner::resolvconf;
  std::ifstream text(place);
  for (std::string line; std::getline(text, line);) {
    const Words words(line);
    if (words.keyword == "nameserver") return words.value == "127.0.0.53" ? Owner::resolvedStub : Owner::nobody;
    // The word that every program of that name writes above its work.
    if (line.starts_with('#') && line.find("resolvconf") != std::string::npos) return Owner::resolvconf;
  }
  return Owner::nobody;
}

void ResolverConfiguration::apply(const std::string &interface, const std::vector<in_addr> &servers, bool primary,
                                  Done done) {
  Wish wish{interface, servers, primary, std::move(done)};
  if (busy_) {
    later_ = std::move(wish);
    return;
  }
  later_.reset();
  begin(std::move(wish));
}

void ResolverConfiguration::begin(Wish wish) {
  const bool known = madeKnown_ && wish.asksForTheSameAs(wish_);
  busy_ = true;
  wish_ = std::move(wish);
  next_ = linux::EventSource::soon(event_, [this, known] {
    if (known || takenOver_)
      say("");
    else
      makeKnown();
  });
}

void ResolverConfiguration::makeKnown() {
  madeKnown_ = false;
  watch_.reset();
  // What was asked for before goes first: whose the file is shows when it is back.
  if (Journal *lasting = journal_.lasting(); lasting != nullptr && !lasting->entries().empty()) {
    const auto back = takeFileBack(*lasting, 0);
    if (!back) return finish(back.error());
    if (!*back) {
      takenOver_ = true;
      return say(takenOverSentence());
    }
  }
  if (wish_.servers.empty()) return finish({});
  owner_ = ownerOf(paths_);
  if (owner_ == Owner::resolvedStub || owner_ == Owner::resolvedUplinks) {
    resolved_ = std::make_unique<ResolvedClient>(event_, paths_.bus);
    return resolved_->tell(static_cast<int>(if_nametoindex(wish_.interface.c_str())), wish_.servers, domains_,
                           wish_.primary, [this](const Status &status) { resolvedAnswered(status); });
  }
  if (!wish_.primary) return finish({});
  if (const std::string program = resolvconfProgram(paths_.resolvconf); owner_ == Owner::resolvconf && !program.empty())
    return runResolvconf(program);
  finish(editFile());
}

void ResolverConfiguration::resolvedAnswered(const Status &status) {
  if (!wish_.primary) return finish(status);
  if (status) return finish(owner_ == Owner::resolvedUplinks ? editFile() : Status());
  if (const Status edited = editFile(); !edited) return finish(edited);
  madeKnown_ = true;
  say(status.error().message + ": the server's name servers stand in " + paths_.file + " itself for now.");
}

void ResolverConfiguration::runResolvconf(const std::string &program) {
  const std::string lines = nameserverLines(wish_.servers) + (domains_.empty() ? "" : searchLine(domains_));
  const vpnctl::FileDescriptor input(::memfd_create("name servers", MFD_CLOEXEC));
  if (!input || !vpnctl::writeAll(input.get(), lines, program) || ::lseek(input.get(), 0, SEEK_SET) < 0)
    return finish(errnoError(errno, "write the name servers for " + program));
  if (recordKey_.empty()) recordKey_ = newRecordKey(wish_.interface);
  const ResolvconfRecord record{program, recordKey_};
  if (std::ranges::find(journal_.entries(), JournalEntry(record)) == journal_.entries().end())
    if (Status noted = journal_.note(record); !noted) return finish(noted);
  auto process = linux::ChildProcess::spawn({program, "-a", recordKey_}, {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"},
                                            {.input = input.get()});
  if (!process) return finish(process.error());
  resolvconf_.emplace(std::move(*process));
  resolvconf_->watch(event_, [this, program](const linux::ChildProcess::End &end) { resolvconfEnded(program, end); });
  resolvconf_->killAfter(kProgramDeadline);
}

void ResolverConfiguration::resolvconfEnded(const std::string &program, const linux::ChildProcess::End &end) {
  if (end.exited && end.code == 0) return finish({});
  finish(vpnctl::Error{"resolvconf", end.code,
                       program + (end.exited ? " -a ends with status " + std::to_string(end.code)
                                             : " -a was ended by signal " + std::to_string(end.code))});
}

Status ResolverConfiguration::editFile() {
  const auto lasting = journal_.openLasting(paths_.originals);
  if (!lasting) return lasting.error();
  return replaceFile(**lasting, paths_.file,
                     [this](const std::string &before) { return resolverFile(before, wish_.servers, domains_); });
}

void ResolverConfiguration::finish(const Status &failure) {
  madeKnown_ = static_cast<bool>(failure);
  say(failure ? "" : "The server's name servers are not used: " + failure.error().message + ".");
}

void ResolverConfiguration::say(const std::string &sentence) {
  if (later_) return begin(*std::exchange(later_, std::nullopt));
  busy_ = false;
  if (madeKnown_ && !takenOver_ && wish_.primary && !wish_.servers.empty()) watch();
  const Done done = std::exchange(wish_.done, nullptr);
  done(sentence);
}

// Without room for a watch the link is none the worse.
void ResolverConfiguration::watch() {
  if (watch_) return;
  auto watch = linux::FileWatch::watch(event_, paths_.file, [this] { fileStirred(); });
  if (!watch) return;
  watch_ = std::move(*watch);
  watch_->again();  // what happened before there was a watch
}

void ResolverConfiguration::fileStirred() {
  if (busy_) return;
  Journal *lasting = journal_.lasting();
  if (lasting == nullptr || lasting->entries().empty()) {
    if (ownerOf(paths_) == owner_) return;
  } else {
    const auto ours = isFileStillReplaced(*lasting, 0);
    if (!ours && ours.error().code == EWOULDBLOCK) return watch_->again();  // another link is at it
    if (ours && *ours) return;
  }
  takenOver_ = true;
  watch_.reset();
  tell_(takenOverSentence());
}

std::string ResolverConfiguration::takenOverSentence() const {
  return "Another program has changed " + paths_.file +
         ": the server's name servers are no longer asked. The file stays as it is now.";
}

}  // namespace helper
