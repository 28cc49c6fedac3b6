#include "helper/common/SettingsText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "foundation/FileDescriptor.h"

namespace helper {

using vpnctl::errnoError;
using vpnctl::Error;
using vpnctl::FileDescriptor;
using vpnctl::Result;
using vpnctl::Status;

namespace {

constexpr std::size_t kMaximumSize = 65536;  // bytes
constexpr std::size_t kShortInteger = 8;     // characters that fit 32 bits, whatever they are
constexpr std::string_view kWordCharacters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-*";

Error refusal(std::string reason) { return {"SettingsText", 0, std::move(reason)}; }

Status check(const struct stat &attributes, uid_t owner) {
  if (!S_ISREG(attributes.st_mode)) return refusal("it is not a regular file");
  if (attributes.st_uid != owner) {
    return refusal("it belongs to user " + std::to_string(attributes.st_uid) + "; chown it to user " +
                   std::to_string(owner));
  }
  if ((attributes.st_mode & (S_IWGRP | S_IWOTH)) != 0) return refusal("others may write it; chmod go-w it");
  return {};
}

// How much of TEXT, which is not empty, is one comment or one quoted text; 0: it starts with neither.
std::size_t lengthOfQuiet(std::string_view text) {
  const auto upTo = [&](std::string_view end, std::size_t from) {
    const std::size_t found = text.find(end, from);
    return found == std::string_view::npos ? text.size() : found + end.size();
  };
  if (text.starts_with('#') || text.starts_with("//")) return upTo("\n", 0);
  if (text.starts_with("/*")) return upTo("*/", 2);
  if (!text.starts_with('"')) return 0;
  std::size_t end = 1;
  while (end < text.size() && text[end] != '"') end += text[end] == '\\' ? 2 : 1;
  return std::min(end + 1, text.size());
}

bool isLongInteger(std::string_view word) {
  if (word.starts_with('-')) word.remove_prefix(1);
  if (word.size() <= kShortInteger || word.front() < '0' || word.front() > '9') return false;
  const bool hexadecimal = word.starts_with("0x") || word.starts_with("0X");
  return word.find_first_not_of(hexadecimal ? "0123456789abcdefABCDEF" : "0123456789", hexadecimal ? 2 : 0) ==
         std::string_view::npos;
}

}  // namespace

Result<std::optional<std::string>> readSettingsText(const std::string &path, uid_t owner) {
  // Non-blocking for the case that the path is a FIFO.
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file && errno == ENOENT) return std::optional<std::string>();
  if (!file && errno == ELOOP) return refusal("it is a symbolic link; put the file itself there");
  if (!file) return errnoError(errno, "it cannot be opened");
  struct stat attributes = {};
  if (::fstat(file.get(), &attributes) < 0) return errnoError(errno, "it cannot be looked at");
  if (const Status usable = check(attributes, owner); !usable) return usable.error();
  std::string text(kMaximumSize + 1, '\0');
  std::size_t filled = 0;
  while (filled < text.size()) {
    const ssize_t count = ::read(file.get(), text.data() + filled, text.size() - filled);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return errnoError(errno, "it cannot be read");
    if (count == 0) break;
    filled += static_cast<std::size_t>(count);
  }
  if (filled > kMaximumSize) return refusal("it is longer than 64 KiB");
  text.resize(filled);
  return std::optional<std::string>(std::move(text));
}

unsigned lineOfInclude(std::string_view text) {
  unsigned line = 1;
  for (std::size_t start = 0; start < text.size(); ++line) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    std::string_view content = text.substr(start, end - start);
    content.remove_prefix(std::min(content.find_first_not_of(" \t"), content.size()));
    if (content.starts_with("@include")) return line;
    start = end + 1;
  }
  return 0;
}

std::string withLongIntegers(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    std::size_t length = lengthOfQuiet(text);
    bool isLong = false;
    if (length == 0) {
      length = std::max<std::size_t>(std::min(text.find_first_not_of(kWordCharacters), text.size()), 1);
      // A point makes it no integer.
      isLong = isLongInteger(text.substr(0, length)) && !text.substr(length).starts_with('.');
    }
    result.append(text.substr(0, length));
    if (isLong) result += 'L';
    text.remove_prefix(length);
  }
  return result;
}

}  // namespace helper
