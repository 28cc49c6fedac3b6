#include "helper/isakmp/Notification.h"

#include "helper/isakmp/Header.h"

namespace helper::isakmp {

namespace {

constexpr std::size_t kLongestSPI = 16;
constexpr std::size_t kMostSPIs = 64;

// Some say "ISAKMP in general", which is 0.
bool isOurDomain(View body) { return read32(body) <= kIPSecDOI; }

}  // namespace

vpnctl::Result<Notification> decodeNotification(View body) {
  if (body.size() < 8) return malformed("a notification shorter than its fixed part");
  if (!isOurDomain(body)) return malformed("a notification of another domain");
  const std::size_t spiSize = body[5];
  if (spiSize > kLongestSPI || spiSize > body.size() - 8) return malformed("an SPI of an impossible length");
  return Notification{body[4], read16(body.subspan(6)), copyOf(body.subspan(8, spiSize)),
                      copyOf(body.subspan(8 + spiSize))};
}

Bytes encode(const Notification &notification) {
  Bytes bytes;
  append32(bytes, kIPSecDOI);
  append8(bytes, notification.protocol);
  append8(bytes, static_cast<std::uint8_t>(notification.spi.size()));
  append16(bytes, notification.type);
  append(bytes, notification.spi);
  append(bytes, notification.data);
  return bytes;
}

vpnctl::Result<Deletion> decodeDeletion(View body) {
  if (body.size() < 8) return malformed("a delete shorter than its fixed part");
  if (!isOurDomain(body)) return malformed("a delete of another domain");
  const std::size_t spiSize = body[5];
  const std::size_t count = read16(body.subspan(6));
  if (spiSize == 0 || spiSize > kLongestSPI) return malformed("an SPI of an impossible length");
  if (count == 0 || count > kMostSPIs) return malformed("an impossible number of SPIs");
  if (body.size() != 8 + spiSize * count) return malformed("a delete with another number of SPIs than it says");
  Deletion deletion{body[4], {}};
  for (std::size_t i = 0; i < count; ++i) deletion.spis.push_back(copyOf(body.subspan(8 + i * spiSize, spiSize)));
  return deletion;
}

Bytes encode(const Deletion &deletion) {
  Bytes bytes;
  append32(bytes, kIPSecDOI);
  append8(bytes, deletion.protocol);
  append8(bytes, static_cast<std::uint8_t>(deletion.spis.front().size()));
  append16(bytes, deletion.spis.size());
  for (const Bytes &spi : deletion.spis) append(bytes, spi);
  return bytes;
}

std::string notificationName(std::uint16_t type) {
  static constexpr const char *kErrors[] = {"",
                                            "INVALID-PAYLOAD-TYPE",
                                            "DOI-NOT-SUPPORTED",
                                            "SITUATION-NOT-SUPPORTED",
                                            "INVALID-COOKIE",
                                            "INVALID-MAJOR-VERSION",
                                            "INVALID-MINOR-VERSION",
                                            "INVALID-EXCHANGE-TYPE",
                                            "INVALID-FLAGS",
                                            "INVALID-MESSAGE-ID",
                                            "INVALID-PROTOCOL-ID",
                                            "INVALID-SPI",
                                            "INVALID-TRANSFORM-ID",
                                            "ATTRIBUTES-NOT-SUPPORTED",
                                            "NO-PROPOSAL-CHOSEN",
                                            "BAD-PROPOSAL-SYNTAX",
                                            "PAYLOAD-MALFORMED",
                                            "INVALID-KEY-INFORMATION",
                                            "INVALID-ID-INFORMATION",
                                            "INVALID-CERT-ENCODING",
                                            "INVALID-CERTIFICATE",
                                            "CERT-TYPE-UNSUPPORTED",
                                            "INVALID-CERT-AUTHORITY",
                                            "INVALID-HASH-INFORMATION",
                                            "AUTHENTICATION-FAILED",
                                            "INVALID-SIGNATURE",
                                            "ADDRESS-NOTIFICATION",
                                            "NOTIFY-SA-LIFETIME",
                                            "CERTIFICATE-UNAVAILABLE",
                                            "UNSUPPORTED-EXCHANGE-TYPE",
                                            "UNEQUAL-PAYLOAD-LENGTHS"};
  if (type > 0 && type < std::size(kErrors)) return kErrors[type];
  return "notification " + std::to_string(type);
}

}  // namespace helper::isakmp
