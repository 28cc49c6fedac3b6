#include "helper/isakmp/Algorithms.h"

#include <stdexcept>

namespace helper::isakmp {

std::size_t keySize(CipherAlgorithm cipher) {
  switch (cipher) {
    case CipherAlgorithm::tripleDES:
    case CipherAlgorithm::aes192:
      return 24;
    case CipherAlgorithm::aes128:
      return 16;
    case CipherAlgorithm::aes256:
      return 32;
  }
  throw std::logic_error("no such cipher");
}

std::size_t blockSize(CipherAlgorithm cipher) { return cipher == CipherAlgorithm::tripleDES ? 8 : 16; }

std::size_t hashSize(HashAlgorithm algorithm) {
  switch (algorithm) {
    case HashAlgorithm::md5:
      return 16;
    case HashAlgorithm::sha1:
      return 20;
    case HashAlgorithm::sha256:
      return 32;
    case HashAlgorithm::sha384:
      return 48;
    case HashAlgorithm::sha512:
      return 64;
  }
  throw std::logic_error("no such hash");
}

std::size_t checkSize(HashAlgorithm integrity) {
  switch (integrity) {
    case HashAlgorithm::md5:
    case HashAlgorithm::sha1:
      return 96;
    // RFC 4868. An earlier draft had 96 for the first, which some servers and kernels still take.
    case HashAlgorithm::sha256:
      return 128;
    case HashAlgorithm::sha384:
      return 192;
    case HashAlgorithm::sha512:
      return 256;
  }
  throw std::logic_error("no such hash");
}

}  // namespace helper::isakmp
