#include "helper/isakmp/Sealing.h"

namespace helper::isakmp {

Bytes plainMessage(Header header, const PayloadWriter &payloads) {
  header.first = payloads.first();
  Bytes message = encodeHeader(header, kHeaderSize + payloads.bytes().size());
  append(message, payloads.bytes());
  return message;
}

vpnctl::Result<PayloadChain> openPlain(const Header &header, View datagram) {
  if ((header.flags & kFlagEncrypted) != 0) return malformed("encrypted where nothing can be");
  return PayloadChain::decode(header.first, datagram.subspan(kHeaderSize), PayloadChain::Padding::none);
}

Bytes sealedMessage(Header header, const PayloadWriter &payloads, CipherAlgorithm cipher, const vpnctl::Secret &key,
                    Bytes &iv) {
  const std::size_t block = blockSize(cipher);
  Bytes text = payloads.bytes();
  text.resize((text.size() + block - 1) / block * block);
  const Bytes sealed = encrypt(cipher, key, iv, text);
  iv = copyOf(View(sealed).last(block));
  header.first = payloads.first();
  header.flags |= kFlagEncrypted;
  Bytes message = encodeHeader(header, kHeaderSize + sealed.size());
  append(message, sealed);
  return message;
}

vpnctl::Result<Opened> openSealed(const Header &header, View datagram, CipherAlgorithm cipher,
                                  const vpnctl::Secret &key, View iv) {
  if ((header.flags & kFlagEncrypted) == 0) return malformed("in clear where nothing may be");
  const View sealed = datagram.subspan(kHeaderSize);
  const std::size_t block = blockSize(cipher);
  if (sealed.empty() || sealed.size() % block != 0) return malformed("not whole blocks");
  Bytes text = decrypt(cipher, key, iv, sealed);
  auto chain = PayloadChain::decode(header.first, text, PayloadChain::Padding::allowed);
  if (!chain) return chain.error();
  return Opened(std::move(text), std::move(*chain), copyOf(sealed.last(block)));
}

}  // namespace helper::isakmp
