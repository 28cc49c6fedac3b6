// Parts of a link that touch nothing: they write down what is done to them, fail where a test says so, and let the test
// play the server, pppd and the tunnel.

#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "helper/common/IPv4Address.h"
#include "helper/link/LinkParts.h"
#include "tests/support/ManualClock.h"

namespace support {

// What the parts share with the test; outlives them all.
struct LinkMachine {
  std::vector<std::string> deeds;      // in their order
  std::vector<std::string> sentences;  // of the PPP log
  ManualClock clock;
  std::chrono::steady_clock::time_point lastLogged{};
  std::string failing;      // the name of the deed that fails
  bool hasMPPE = true;      // the kernel
  bool answersStop = true;  // the tunnel
  bool rulesAreGone = false;
  std::optional<helper::IPv4Network> around{};  // the address that PPP gets
  bool pppRuns = false;
  std::chrono::milliseconds grace{};  // for pppd's end, as last granted
  bool tunnelThere = false;
  in_addr keptOff{};  // of the tunnel, at last

  // Whom the link listens to.
  helper::LinkParts::AddressHandler address;
  helper::PPPSession::Handlers ppp;
  helper::Tunnel::Handlers tunnel;
  helper::NameServers::Done nameServersDone;
  helper::NetworkWatch::Handlers network;
  std::function<void()> logout;  // empty: nobody listens

  void record(const std::string &name, const std::string &with = {}) {
    deeds.push_back(with.empty() ? name : name + " " + with);
  }
  vpnctl::Status attempt(const std::string &name, const std::string &with = {}) {
    record(name, with);
    if (name == failing) return vpnctl::Error{"Test", 1, "it is broken"};
    return {};
  }
  void say(std::string_view sentence) {
    sentences.emplace_back(sentence);
    lastLogged = clock.now();
  }
  bool did(const std::string &name) const { return std::ranges::count(deeds, name) > 0; }
};

class RecordingPPP : public helper::PPPSession {
 public:
  explicit RecordingPPP(LinkMachine &machine) : machine_(machine) { machine_.pppRuns = true; }
  RecordingPPP(const RecordingPPP &) = delete;
  RecordingPPP &operator=(const RecordingPPP &) = delete;
  ~RecordingPPP() override { machine_.ppp = {}; }
  bool running() const override { return machine_.pppRuns; }
  void giveChannel(helper::TunnelChannel) override { machine_.record("ppp channel"); }
  void terminate(std::chrono::milliseconds grace) override { end("ppp terminate", grace); }
  void hangUp(std::chrono::milliseconds grace) override { end("ppp hangUp", grace); }
  void closeNow(std::chrono::milliseconds deadline) override {
    if (std::exchange(machine_.pppRuns, false)) end("ppp closeNow", deadline);
  }

 private:
  void end(const std::string &how, std::chrono::milliseconds grace) {
    machine_.record(how);
    machine_.grace = grace;
  }

  LinkMachine &machine_;
};

class RecordingTunnel : public helper::Tunnel {
 public:
  explicit RecordingTunnel(LinkMachine &machine) : machine_(machine) { machine_.tunnelThere = true; }
  RecordingTunnel(const RecordingTunnel &) = delete;
  RecordingTunnel &operator=(const RecordingTunnel &) = delete;
  ~RecordingTunnel() override {
    machine_.tunnelThere = false;
    machine_.tunnel = {};
    machine_.record("tunnel gone");
  }
  void start() override { machine_.record("tunnel start"); }
  void check() override { machine_.record("tunnel check"); }
  void stop() override {
    machine_.record("tunnel stop");
    if (machine_.answersStop) stopped_ = machine_.clock.soon([this] { machine_.tunnel.stopped(); });
  }

 private:
  LinkMachine &machine_;
  linux::Clock::Timer stopped_;
};

class RecordingParts : public helper::LinkParts, helper::Routes, helper::NameServers {
 public:
  explicit RecordingParts(LinkMachine &machine) : machine_(machine) {}

  vpnctl::Status open() override { return machine_.attempt("open"); }
  vpnctl::Result<std::unique_ptr<helper::PPPSession>> startPPP(helper::PPPSession::Handlers handlers) override {
    if (const vpnctl::Status status = machine_.attempt("ppp start"); !status) return status.error();
    machine_.ppp = std::move(handlers);
    return std::unique_ptr<helper::PPPSession>(std::make_unique<RecordingPPP>(machine_));
  }
  std::shared_ptr<void> findServer(AddressHandler handler) override {
    machine_.record("find server");
    machine_.address = std::move(handler);
    return {&machine_, [](LinkMachine *machine) { machine->address = nullptr; }};
  }
  std::unique_ptr<helper::Tunnel> makeTunnel(in_addr server, helper::Tunnel::Handlers handlers) override {
    machine_.record("tunnel make", helper::textOf(server));
    machine_.tunnel = std::move(handlers);
    return std::make_unique<RecordingTunnel>(machine_);
  }
  Routes &routes() override { return *this; }
  vpnctl::Result<std::shared_ptr<void>> watchNetwork(in_addr server, helper::NetworkWatch::Handlers handlers) override {
    if (const vpnctl::Status status = machine_.attempt("watch", helper::textOf(server)); !status) return status.error();
    machine_.network = std::move(handlers);
    return std::shared_ptr<void>(&machine_, [](LinkMachine *machine) { machine->network = {}; });
  }
  std::shared_ptr<void> afterLogout(std::function<void()> handler) override {
    machine_.logout = std::move(handler);
    return {&machine_, [](LinkMachine *machine) { machine->logout = nullptr; }};
  }
  NameServers &nameServers() override { return *this; }
  void describe(in_addr server, const helper::PluginIPUp &up) override {
    machine_.record("describe", up.interface + " to " + helper::textOf(server));
  }
  vpnctl::Result<vpnctl::Secret> password(const helper::Peer &) override {
    if (const vpnctl::Status status = machine_.attempt("password"); !status) return status.error();
    return vpnctl::Secret(std::string_view("a password"));
  }
  bool kernelHasMPPE() const override { return machine_.hasMPPE; }
  void takeBack() override { machine_.record("take back"); }
  linux::Clock &clock() override { return machine_.clock; }
  void log(std::string_view sentence) override { machine_.say(sentence); }
  std::chrono::steady_clock::time_point lastLogged() const override { return machine_.lastLogged; }

 private:
  vpnctl::Status keepWay(in_addr server) override { return machine_.attempt("keep way", helper::textOf(server)); }
  vpnctl::Status keepServerOff(const std::string &interface, in_addr server) override {
    machine_.keptOff = server;
    return machine_.attempt("keep off", interface);
  }
  std::optional<helper::IPv4Network> networkAround(in_addr, const std::string &) override { return machine_.around; }
  vpnctl::Status carry(const std::string &interface) override { return machine_.attempt("carry", interface); }
  vpnctl::Result<bool> putBack() override {
    if (const vpnctl::Status status = machine_.attempt("put back"); !status) return status.error();
    return machine_.rulesAreGone;
  }
  void apply(const std::string &interface, const std::vector<in_addr> &, bool primary, Done done) override {
    machine_.record("name servers", interface + (primary ? " for everything" : ""));
    machine_.nameServersDone = std::move(done);
  }

  LinkMachine &machine_;
};

}  // namespace support
