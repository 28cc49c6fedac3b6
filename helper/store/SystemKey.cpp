#include "helper/store/SystemKey.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace helper {

using vpnctl::errnoError;
using vpnctl::Error;
using vpnctl::Result;
using vpnctl::Secret;
using vpnctl::Status;

namespace {

constexpr std::size_t kKeySize = crypto_aead_xchacha20poly1305_ietf_KEYBYTES;
constexpr std::size_t kNonceSize = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
constexpr std::size_t kTagSize = crypto_aead_xchacha20poly1305_ietf_ABYTES;

const unsigned char *bytesOf(std::string_view text) { return reinterpret_cast<const unsigned char *>(text.data()); }
unsigned char *bytesOf(std::string &text) { return reinterpret_cast<unsigned char *>(text.data()); }

Error failure(int errnum, std::string message) {
  return {std::string(vpnctl::kPOSIXErrorDomain), errnum, std::move(message)};
}

Status initialise() {
  if (sodium_init() >= 0) return {};
  return failure(EIO, "the cryptographic library cannot be initialised");
}

std::string folderOf(const std::string &path) { return path.substr(0, path.rfind('/') + 1); }
std::string besideOf(const std::string &path) { return path + "-new"; }

}  // namespace

Result<SystemKey> SystemKey::load(const std::string &path, vpnctl::FileSystem &fileSystem) {
  if (auto status = initialise(); !status) return status.error();
  auto file = fileSystem.open(path, O_RDONLY, 0);
  if (!file) {
    if (file.error().code == ELOOP) return failure(ELOOP, path + " is a symbolic link; put the key itself there");
    return file.error();
  }
  struct stat attributes = {};
  if (::fstat(file->get(), &attributes) < 0) return errnoError(errno, "stat " + path);
  if (!S_ISREG(attributes.st_mode) || attributes.st_uid != ::geteuid() || (attributes.st_mode & 077) != 0)
    return failure(EPERM, path + " is not a file that only its owner may read; chmod it to 0400");
  Secret key = Secret::ofSize(kKeySize);
  ssize_t count = 0;
  do {
    count = ::read(file->get(), key.mutableBytes().data(), kKeySize);
  } while (count < 0 && errno == EINTR);
  if (count < 0) return errnoError(errno, "read " + path);
  if (attributes.st_size != static_cast<off_t>(kKeySize) || count != static_cast<ssize_t>(kKeySize))
    return failure(EINVAL, path + " is not a key of " + std::to_string(kKeySize) + " bytes; bring the right one back");
  return SystemKey(std::move(key));
}

Result<SystemKey> SystemKey::create(const std::string &path, vpnctl::FileSystem &fileSystem) {
  if (auto status = initialise(); !status) return status.error();
  Secret key = Secret::ofSize(kKeySize);
  randombytes_buf(key.mutableBytes().data(), kKeySize);

  // Whole under a name of its own first: a process killed here must not leave half a key under the real one.
  const std::string beside = besideOf(path);
  if (auto removed = fileSystem.remove(beside); !removed && removed.error().code != ENOENT) return removed.error();
  auto file = fileSystem.open(beside, O_WRONLY | O_CREAT | O_EXCL, 0400);
  if (!file) return file.error();
  Status status = fileSystem.write(file->get(), key.text(), beside);
  if (status) status = fileSystem.synchronize(file->get(), beside);
  if (status) status = fileSystem.link(beside, path);
  ::unlink(beside.c_str());
  if (!status) return status.error();
  const std::string folder = folderOf(path);
  auto opened = fileSystem.open(folder, O_RDONLY | O_DIRECTORY, 0);
  if (!opened) return opened.error();
  if (auto synchronized = fileSystem.synchronize(opened->get(), folder); !synchronized) return synchronized.error();
  return SystemKey(std::move(key));
}

void SystemKey::removeRemains(const std::string &path, vpnctl::FileSystem &fileSystem) {
  // It is the key's own file under a second name: nothing is lost when this fails.
  static_cast<void>(fileSystem.remove(besideOf(path)));
}

Result<std::string> SystemKey::seal(const Secret &secret, std::string_view associated) const {
  std::string sealed(kNonceSize + secret.size() + kTagSize, '\0');
  randombytes_buf(sealed.data(), kNonceSize);
  unsigned long long written = 0;
  if (crypto_aead_xchacha20poly1305_ietf_encrypt(bytesOf(sealed) + kNonceSize, &written, secret.bytes().data(),
                                                 secret.size(), bytesOf(associated), associated.size(), nullptr,
                                                 bytesOf(sealed), key_.bytes().data()) != 0)
    return failure(EIO, "seal a secret: failed");
  return sealed;
}

Result<Secret> SystemKey::unseal(std::string_view sealed, std::string_view associated) const {
  const Error tampered = failure(EBADMSG, "the secret was not sealed with these attributes under this key");
  if (sealed.size() < kNonceSize + kTagSize) return tampered;
  Secret secret = Secret::ofSize(sealed.size() - kNonceSize - kTagSize);
  unsigned long long written = 0;
  if (crypto_aead_xchacha20poly1305_ietf_decrypt(
          secret.mutableBytes().data(), &written, nullptr, bytesOf(sealed) + kNonceSize, sealed.size() - kNonceSize,
          bytesOf(associated), associated.size(), bytesOf(sealed), key_.bytes().data()) != 0)
    return tampered;
  return secret;
}

}  // namespace helper
