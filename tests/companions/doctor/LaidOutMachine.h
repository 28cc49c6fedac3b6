// A machine in a folder on which nothing stands in the way of a connection, until a test puts something there.

#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "companions/doctor/NetworkState.h"
#include "companions/doctor/Situation.h"
#include "tests/support/TemporaryFolder.h"

namespace companions {

class LaidOutMachine {
 public:
  LaidOutMachine() {
    machine.proc = at("proc");
    machine.sys = at("sys");
    machine.dev = at("dev");
    machine.run = at("run");
    machine.modules = at("modules");
    machine.release = "6.1.0-1";
    machine.architecture = "x86_64";
    machine.modprobe = {at("modprobe.d")};
    machine.settings = at("etc");
    machine.administrator = ::geteuid();
    machine.journals = at("journals");
    machine.lastingJournals = at("replaced");
    machine.pppd = program("pppd", "echo pppd version 2.4.9");
    machine.tool = program("vpnctl", "exit 1");
    machine.helper = program("vpnctl-helper", "exit 1");
    machine.ike = program("vpnctl-ike", "exit 1");
    machine.plugin = write("plugin.so", std::string("\177ELF 12.4.9\0 \0", 15) + std::string("2.4.9\0", 6));
    machine.helperSocket = "/run/vpnctl.socket";
    machine.policy = write("policy", "<policyconfig/>");
    configuration = write("office.conf", kConfiguration, 0600);
    layOutProc();
    layOutKernel();
    write("etc/engine.conf", "ike = { proposals = [ \"aes256-sha1-modp1024\" ]; };");
    for (const char *empty : {"sys/class/net", "run", "modprobe.d", "etc/engine.d"}) makeFolder(empty);
    network.rules = {{0, 255, 2, false, false}, {32766, 254, 2, false, false}, {0, 7001, 118, false, false}};
    network.policies = 0;
  }

  std::string at(const std::string &name) const { return folder.path(name); }
  void makeFolder(const std::string &name) const { std::filesystem::create_directories(at(name)); }
  std::string write(const std::string &name, const std::string &text, mode_t mode = 0644) const {
    std::filesystem::create_directories(std::filesystem::path(at(name)).parent_path());
    support::writeFile(at(name), text);
    ::chmod(at(name).c_str(), mode);
    return at(name);
  }
  std::string program(const std::string &name, const std::string &text) const {
    return write(name, "#!/bin/sh\n" + text + "\n", 0755);
  }
  void remove(const std::string &name) const { std::filesystem::remove_all(at(name)); }
  void configure(const std::string &what, const std::string &by) const {
    std::string text = kConfiguration;
    text.replace(text.find(what), what.size(), by);
    write("office.conf", text, 0600);
  }
  // Process 77, with a UDP socket on PORT, in hexadecimal.
  void runProcess(const std::string &name, const std::string &port = "") const {
    write("proc/77/comm", name + "\n");
    makeFolder("proc/77/fd");
    if (port.empty()) return;
    support::appendToFile(at("proc/net/udp"), "  10: 00000000:" + port +
                                                  " 00000000:0000 07 00000000:00000000 00:00000000 00000000     0"
                                                  "        0 4242 2 0000000000000000 0\n");
    std::filesystem::create_symlink("socket:[4242]", at("proc/77/fd/3"));
  }
  void forgetModule(const std::string &name) const {
    std::string text = folder.read("modules/6.1.0-1/modules.dep");
    const std::size_t start = text.find("kernel/" + name + ".ko");
    text.erase(start, text.find('\n', start) + 1 - start);
    write("modules/6.1.0-1/modules.dep", text);
  }
  Situation situation() const {
    return Situation::of(machine, user, path.empty() ? std::nullopt : std::optional(path));
  }

  static constexpr char kConfiguration[] =
      "protocol = \"l2tp\";\nip = \"vpn.example.org\";\nusername = \"ann\";\npassword = \"hidden-one\";\n"
      "shared_secret = \"hidden-two\";\n";

  const support::TemporaryFolder folder;
  Machine machine;
  NetworkState network;
  std::string configuration;
  std::string path;  // of the configuration that is named; empty: none
  uid_t user = 0;

 private:
  void layOutProc() const {
    const std::string heading = "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt uid\n";
    write("proc/net/udp", heading);
    write("proc/net/udp6", heading);
    write("proc/net/unix",
          "Num       RefCount Protocol Flags    Type St Inode Path\n"
          "0000000000000000: 00000002 00000000 00010000 0001 01 1234 /run/vpnctl.socket\n");
    write("proc/net/protocols", "protocol  size sockets\nUNIX 1024 10\n");
    write("proc/net/netlink", "sk               Eth Pid\n00000000191dc0e1 0   0\n");
    write("proc/devices", "Character devices:\n  1 mem\n108 ppp\n");
    write("proc/modules", "ppp_generic 45056 0 - Live 0x0\n");
    write("proc/crypto", "name         : cbc(aes)\ndriver       : cbc-aes-aesni\n\nname         : sha1\n");
    write("proc/sys/kernel/modules_disabled", "0\n");
    write("dev/ppp", "");
  }
  void layOutKernel() const {
    const std::string base = "modules/6.1.0-1/";
    std::string dependencies;
    for (const std::string name : {"ppp_generic", "ppp_mppe", "gre", "xfrm_user", "esp4", "l2tp_core"}) {
      write(base + "kernel/" + name + ".ko.xz", "");
      dependencies += "kernel/" + name + ".ko.xz:\n";
    }
    for (const std::string name : {"pptp", "l2tp-ppp"}) write(base + "kernel/" + name + ".ko", "");
    dependencies += "kernel/pptp.ko: kernel/gre.ko.xz\nkernel/l2tp-ppp.ko: kernel/l2tp_core.ko.xz kernel/esp4.ko.xz\n";
    write(base + "modules.dep", dependencies);
    write(base + "modules.builtin", "kernel/net/built-in.ko\n");
    write(base + "modules.alias", "alias crypto-authenc authenc\nalias crypto-echainiv echainiv\nalias crypto-aes a\n");
    write(base + "modules.builtin.modinfo", std::string("hmac.alias=crypto-hmac\0x.license=GPL\0", 38));
  }
};

}  // namespace companions
