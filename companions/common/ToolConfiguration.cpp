#include "companions/common/ToolConfiguration.h"

#include <fcntl.h>
#include <libconfig.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "foundation/Text.h"

namespace companions {

using vpnctl::errnoError;
using vpnctl::Error;
using vpnctl::FileDescriptor;
using vpnctl::Result;
using vpnctl::Secret;

namespace {

constexpr std::size_t kLargest = std::size_t{16} << 20;
// vpnctl cuts longer ones.
constexpr std::size_t kLongestPath = 1023;
constexpr std::size_t kPage = 4096;

// All of the file and a zero byte.
Result<Secret> bytesOf(int file, const std::string &path) {
  Secret bytes = Secret::ofSize(4096);
  for (std::size_t size = 0;;) {
    const ssize_t count = ::read(file, bytes.mutableBytes().data() + size, bytes.size() - 1 - size);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errnoError(errno, "read " + path);
    size += static_cast<std::size_t>(count);
    if (count == 0) {
      if (std::memchr(bytes.bytes().data(), 0, size) != nullptr)
        return Error{"ToolConfiguration", 0, path + " holds a zero byte"};
      return Secret(bytes.bytes().first(size + 1));
    }
    if (size + 1 < bytes.size()) continue;
    if (size >= kLargest) return Error{"ToolConfiguration", 0, path + " is too long"};
    Secret larger = Secret::ofSize(2 * bytes.size());
    std::ranges::copy(bytes.bytes(), larger.mutableBytes().begin());
    bytes = std::move(larger);
  }
}

class Settings {
 public:
  Settings() { config_init(&settings_); }
  Settings(const Settings &) = delete;
  Settings &operator=(const Settings &) = delete;
  ~Settings() { config_destroy(&settings_); }

  bool read(const Secret &text) {
    return config_read_string(&settings_, reinterpret_cast<const char *>(text.bytes().data())) == CONFIG_TRUE;
  }
  std::string fault(const std::string &path) const {
    return path + ":" + std::to_string(config_error_line(&settings_)) + ": " + config_error_text(&settings_);
  }
  std::optional<std::string_view> find(const char *key) const {
    const char *value = nullptr;
    if (config_lookup_string(&settings_, key, &value) != CONFIG_TRUE) return std::nullopt;
    return value;
  }
  std::vector<ToolConfiguration::Setting> all() const {
    using Kind = ToolConfiguration::Setting::Kind;
    std::vector<ToolConfiguration::Setting> found;
    const config_setting_t *root = config_root_setting(&settings_);
    for (int index = 0; index < config_setting_length(root); ++index) {
      const config_setting_t *setting = config_setting_get_elem(root, static_cast<unsigned>(index));
      const char *value = config_setting_get_string(setting);
      Kind kind = Kind::text;
      if (value == nullptr)
        kind = Kind::other;
      else if (*value == 0)
        kind = Kind::empty;
      else if (!vpnctl::isValidUTF8(value))
        kind = Kind::notUTF8;
      found.push_back({config_setting_name(setting), config_setting_source_line(setting), kind});
    }
    return found;
  }

 private:
  config_t settings_;
};

// Appends to bytes that were set aside beforehand: what a growing text leaves behind would be one more copy. Without
// such bytes it counts how many they must be.
class Writer {
 public:
  explicit Writer(Secret *bytes) : bytes_(bytes) {}

  void setting(std::string_view key, const std::optional<std::string_view> &value) {
    if (!value) return;
    add(key);
    add(" = \"");
    for (const char c : *value) character(c);
    add("\";\n");
  }
  std::size_t size() const { return size_; }

 private:
  void character(char c) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    const auto code = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      add("\\");
      put(c);
    } else if (code < ' ' || code == 0x7f) {
      add("\\x");
      put(kDigits[code >> 4]);
      put(kDigits[code & 15]);
    } else {
      put(c);
    }
  }
  void add(std::string_view text) {
    for (const char c : text) put(c);
  }
  void put(char c) {
    if (bytes_ != nullptr) bytes_->mutableBytes()[size_] = static_cast<std::uint8_t>(c);
    ++size_;
  }

  Secret *bytes_;
  std::size_t size_ = 0;
};

}  // namespace

Result<ToolConfiguration> ToolConfiguration::read(const std::string &path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
  if (!file) return errnoError(errno, "open " + path);
  struct stat status = {};
  if (::fstat(file.get(), &status) < 0) return errnoError(errno, "stat " + path);
  const auto bytes = bytesOf(file.get(), path);
  if (!bytes) return bytes.error();
  Settings settings;
  if (!settings.read(*bytes)) return Error{"ToolConfiguration", 0, settings.fault(path)};
  ToolConfiguration configuration(path);
  configuration.isChanged_ = !S_ISREG(status.st_mode) || path.size() > kLongestPath;
  configuration.settings_ = settings.all();
  const auto text = [&settings](const char *key) -> std::optional<std::string> {
    const auto value = settings.find(key);
    return value ? std::optional(std::string(*value)) : std::nullopt;
  };
  const auto secret = [&settings](const char *key) -> std::optional<Secret> {
    const auto value = settings.find(key);
    return value ? std::optional(Secret(*value)) : std::nullopt;
  };
  configuration.protocol_ = text("protocol");
  configuration.server_ = text("ip");
  configuration.username_ = text("username");
  configuration.password_ = secret("password");
  configuration.sharedSecret_ = secret("shared_secret");
  return configuration;
}

ToolConfiguration ToolConfiguration::unread(const std::string &path) { return ToolConfiguration(path); }

std::string_view ToolConfiguration::missing() const {
  if (!protocol_) return "protocol";
  if (!server_) return "ip";
  if (!username_) return "username";
  if (!password_) return "password";
  return sharedSecret_ ? "" : "shared_secret";
}

void ToolConfiguration::setPassword(Secret password) {
  password_ = std::move(password);
  isChanged_ = true;
}

void ToolConfiguration::setSharedSecret(Secret secret) {
  sharedSecret_ = std::move(secret);
  isChanged_ = true;
}

void ToolConfiguration::forgetSecrets() {
  password_.reset();
  sharedSecret_.reset();
}

Secret ToolConfiguration::text() const {
  const auto view = [](const auto &value) -> std::optional<std::string_view> {
    if (!value) return std::nullopt;
    if constexpr (requires { value->text(); })
      return value->text();
    else
      return std::string_view(*value);
  };
  const auto write = [&](Writer writer) {
    writer.setting("protocol", view(protocol_));
    writer.setting("ip", view(server_));
    writer.setting("username", view(username_));
    writer.setting("password", view(password_));
    writer.setting("shared_secret", view(sharedSecret_));
    return writer.size();
  };
  Secret text = Secret::ofSize(write(Writer(nullptr)));
  write(Writer(&text));
  return text;
}

Result<ToolConfiguration::Delivery> ToolConfiguration::deliver() const {
  if (!isChanged_) return Delivery{path_, {}};
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) < 0) return errnoError(errno, "make a pipe");
  FileDescriptor readEnd(ends[0]);
  const FileDescriptor writeEnd(ends[1]);
  const Secret configuration = text();
  // Nobody reads yet: what the pipe does not take would be waited for without end.
  if (::fcntl(writeEnd.get(), F_SETPIPE_SZ, static_cast<int>(std::max(configuration.size(), kPage))) < 0 ||
      ::fcntl(writeEnd.get(), F_SETFL, O_NONBLOCK) < 0)
    return errnoError(errno, "hand the configuration to vpnctl");
  const ssize_t count = ::write(writeEnd.get(), configuration.bytes().data(), configuration.size());
  if (count < 0) return errnoError(errno, "hand the configuration to vpnctl");
  if (static_cast<std::size_t>(count) != configuration.size())
    return Error{"ToolConfiguration", 0, "the configuration is too long to be handed to vpnctl"};
  return Delivery{"/proc/self/fd/0", std::move(readEnd)};
}

}  // namespace companions
