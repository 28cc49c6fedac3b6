#include "companions/probe/IKEQuestion.h"

#include <sys/random.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "companions/probe/VendorNames.h"
#include "helper/isakmp/Notification.h"
#include "helper/isakmp/Sealing.h"
#include "helper/isakmp/Transforms.h"
#include "helper/isakmp/VendorIDs.h"

namespace companions {

using namespace helper::isakmp;
using Kind = IKEAnswer::Kind;

namespace {

constexpr std::chrono::seconds kLifetime{3600};
constexpr std::size_t kPayloadHeader = 4;
// Of the numbers that are for private use (RFC 2409, appendix A), where a server has none of ours.
constexpr std::uint16_t kNoCipher = 65001;

Cookie freshCookie() {
  Cookie cookie;
  if (::getrandom(cookie.data(), cookie.size(), 0) != static_cast<ssize_t>(cookie.size()))
    throw std::system_error(errno, std::generic_category(), "getrandom");
  if (cookie == Cookie{}) cookie[0] = 1;
  return cookie;
}

SecurityAssociation offerNobodyTakes() {
  SecurityAssociation offer = offerOf(defaultIKEProposals(), kLifetime);
  auto &transforms = offer.proposals.front().transforms;
  transforms.resize(1);
  for (Attribute &attribute : transforms.front().attributes)
    if (attribute.type == phase1::kCipher) attribute.value = kNoCipher;
  return offer;
}

IKEAnswer strange(std::string detail) { return {Kind::strange, {}, {}, {}, std::move(detail)}; }

}  // namespace

IKEQuestion::IKEQuestion(std::vector<IKEProposal> proposals, std::size_t size)
    : proposals_(std::move(proposals)), cookie_(freshCookie()) {
  PayloadWriter writer;
  writer.add(PayloadType::securityAssociation,
             encode(proposals_.empty() ? offerNobodyTakes() : offerOf(proposals_, kLifetime)));
  for (const View id : ownVendorIDs()) writer.add(PayloadType::vendorID, id);
  const std::size_t sofar = kHeaderSize + writer.bytes().size() + kPayloadHeader;
  if (size > sofar) writer.add(PayloadType::vendorID, Bytes(size - sofar, 0));
  Header header;
  header.cookies.initiator = cookie_;
  message_ = plainMessage(header, writer);
}

IKEAnswer IKEQuestion::read(View datagram) const {
  if (datagram.size() < kHeaderSize || !sameBytes(datagram.first(cookie_.size()), cookie_)) return {};
  const auto header = decodeHeader(datagram);
  if (!header) return strange(header.error().message);
  if (header->exchange == ExchangeType::informational) return readRefusal(*header, datagram);
  if (header->exchange != ExchangeType::main) return strange("a message of another exchange");
  return readChoice(*header, datagram);
}

IKEAnswer IKEQuestion::readRefusal(const Header &header, View datagram) {
  const auto chain = openPlain(header, datagram);
  if (!chain) return strange(chain.error().message);
  for (const View body : chain->all(PayloadType::notification)) {
    const auto notification = decodeNotification(body);
    if (!notification) return strange(notification.error().message);
    if (notification->isError())
      return {
          Kind::refused, {}, vendorNames(chain->all(PayloadType::vendorID)), notificationName(notification->type), {}};
  }
  return strange("an informational message that refuses nothing");
}

IKEAnswer IKEQuestion::readChoice(const Header &header, View datagram) const {
  if (header.cookies.responder == Cookie{}) return strange("no responder cookie");
  const auto chain = openPlain(header, datagram);
  if (!chain) return strange(chain.error().message);
  if (const auto status =
          chain->expect({PayloadType::securityAssociation}, {PayloadType::vendorID, PayloadType::notification});
      !status)
    return strange(status.error().message);
  const auto association = decodeSecurityAssociation(*chain->find(PayloadType::securityAssociation));
  if (!association) return strange(association.error().message);
  const auto choice = checkChoice(*association, proposals_);
  if (!choice) return strange(choice.error().message);
  return {Kind::accepted, choice->proposal, vendorNames(chain->all(PayloadType::vendorID)), {}, {}};
}

}  // namespace companions
