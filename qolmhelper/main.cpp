// vpnctl: reads its configuration, chooses the connector, obtains the right, and stays with the connection until it
// ends, or until SIGUSR1 ends it.

#include <getopt.h>
#include <libconfig.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "foundation/ProcessMemory.h"
#include "foundation/Secret.h"
#include "foundation/StandardStreams.h"
#include "foundation/Text.h"
#include "platform/Dispatch.h"
#include "qolmhelper/ConfigurationFile.h"
#include "qolmhelper/TNConnectorL2TP.h"
#include "qolmhelper/TNConnectorPPTP.h"

// GCC wants to be told that a full buffer is meant; clang does not know the word.
#if __has_cpp_attribute(gnu::nonstring)
#define NOT_TERMINATED [[gnu::nonstring]]
#else
#define NOT_TERMINATED
#endif

namespace {

// A path that fills all 1024 bytes has no terminating zero of its own: the one that is never written stands behind it.
struct {
  NOT_TERMINATED char bytes[1024] = "config.qolm";
  const char zero = '\0';
} config_path;

// The echo goes through a buffer of our own, which is wiped when it is out.
std::array<char, BUFSIZ> output_buffer;

void print_usage() { std::printf("Usage: %s -c config\n\n", "vpnctl"); }

void parse_options(int argc, char *argv[]) {
  static constexpr option kLongOptions[] = {
      {"config", required_argument, nullptr, 'c'},
      {nullptr, 0, nullptr, 0},
  };
  while (true) {
    int index = 0;
    switch (getopt_long(argc, argv, "c:", kLongOptions, &index)) {
      case -1:
        return;
      case 'c':
        std::strncpy(config_path.bytes, optarg, sizeof config_path.bytes);
        break;
      case '?':  // getopt_long has said it
      case 0:
        break;
      default:
        print_usage();
        std::exit(1);
    }
  }
}

// The value of KEY, told on standard output; null, told on standard error, when it is missing. The value lives as long
// as the configuration.
const char *lookup(const config_t &config, const char *key) {
  const char *value = nullptr;
  if (config_lookup_string(&config, key, &value) == CONFIG_TRUE)
    std::printf("%s: %s", key, value);
  else
    std::fprintf(stderr, "Invalid config! Missing %s!", key);
  return value;
}

using Text = TN::TNConnectorPPP::Text;
using SecretText = TN::TNConnectorPPP::SecretText;

template <class Connector>
std::shared_ptr<TN::TNConnectorPPP> make(Text server, Text username, SecretText password, SecretText sharedSecret) {
  return std::make_shared<Connector>(std::move(server), std::move(username), std::move(password),
                                     std::move(sharedSecret));
}

struct Protocol {
  const char *name;
  std::shared_ptr<TN::TNConnectorPPP> (*make)(Text server, Text username, SecretText password, SecretText sharedSecret);
};
constexpr std::array kProtocols{Protocol{"l2tp", make<TN::TNConnectorL2TP>},
                                Protocol{"pptp", make<TN::TNConnectorPPTP>}};

std::shared_ptr<TN::TNConnectorPPP> makeConnector(const config_t &config) {
  const char *const protocol = lookup(config, "protocol");
  const char *const ip = lookup(config, "ip");
  const char *const username = lookup(config, "username");
  const char *const password = lookup(config, "password");
  const char *const sharedSecret = lookup(config, "shared_secret");

  // An abnormal end leaves behind what standard output holds back: the settings that were found are told before it.
  if (std::fflush(stdout) == 0) foundation::wipeMemory(output_buffer.data(), output_buffer.size());
  // A missing value throws here, and nobody catches: without its settings the tool ends abnormally.
  const Text name = foundation::stringWithUTF8String(protocol);
  const auto *const known = std::ranges::find_if(kProtocols, [&](const Protocol &p) { return name == p.name; });
  if (known == kProtocols.end()) return nullptr;
  auto server = foundation::stringWithUTF8String(ip);
  auto account = foundation::stringWithUTF8String(username);
  auto accountPassword = foundation::secretWithUTF8String(password);
  auto secret = foundation::secretWithUTF8String(sharedSecret);
  return known->make(std::move(server), std::move(account), std::move(accountPassword), std::move(secret));
}

// Setting the ignore action throws a pending signal away, and one may be pending between the moment the source blocked
// it and its thread reads it: the source is told of that one. That narrows the loss to the moment between the two calls
// here.
void ignoreSignal(int signal, const platform::dispatch_source_t &source) {
  sigset_t pending;
  sigpending(&pending);
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(signal, &ignore, nullptr);
  if (sigismember(&pending, signal) == 1) platform::dispatch_source_merge_data(source, 1);
}

platform::dispatch_source_t armTeardown(const std::shared_ptr<TN::TNConnectorPPP> &connector) {
  const platform::dispatch_source_t source = platform::dispatch_source_create(
      platform::DISPATCH_SOURCE_TYPE_SIGNAL, SIGUSR1, 0,
      platform::dispatch_get_global_queue(platform::DISPATCH_QUEUE_PRIORITY_DEFAULT, 0));
  platform::dispatch_source_set_event_handler(source, [connector] {
    connector->disconnect();
    sleep(1000);  // meanwhile the main thread sees the end, says so and returns from main: that way is to win
    std::exit(0);
  });
  platform::dispatch_resume(source);
  ignoreSignal(SIGUSR1, source);
  return source;
}

}  // namespace

int main(int argc, char *argv[]) {
  foundation::openMissingStandardStreams();
  foundation::protectProcessMemory();
  std::setvbuf(stdout, output_buffer.data(), _IOFBF, output_buffer.size());
  parse_options(argc, argv);

  const char *const path = config_path.bytes;
  config_t config;
  config_init(&config);
  if (!TN::readConfiguration(&config, path)) {
    // A file that cannot be opened has no error file.
    const char *const file = config_error_file(&config);
    std::fprintf(stderr, "error parse config: %s\n", path);
    std::fprintf(stderr, "%s:%d - %s\n", file != nullptr ? file : "(null)", config_error_line(&config),
                 config_error_text(&config));
    config_destroy(&config);
    return 1;
  }
  // Never destroyed: what it holds stays until the process ends, and is not lost with this frame either.
  [[maybe_unused]] static config_t kept;
  kept = config;

  const std::shared_ptr<TN::TNConnectorPPP> connector = makeConnector(config);
  if (!connector || !connector->authorize()) {
    std::fputs("Cannot get authorization!", stderr);
    return 1;
  }
  const platform::dispatch_source_t teardown = armTeardown(connector);
  connector->connect();
  return 0;
}
