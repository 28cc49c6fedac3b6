#include "helper/ike/ESPStateWatch.h"

#include <linux/xfrm.h>
#include <netlink/errno.h>
#include <netlink/msg.h>
#include <netlink/netlink.h>
#include <sys/epoll.h>

#include <string>
#include <utility>

namespace helper {

namespace {

void note(nlmsghdr *message, ESPStateWatch::News &news) {
  news.all |= message->nlmsg_type == XFRM_MSG_FLUSHSA;
  if (message->nlmsg_type != XFRM_MSG_DELSA || nlmsg_datalen(message) < static_cast<int>(sizeof(xfrm_usersa_id)))
    return;
  const auto &id = *static_cast<const xfrm_usersa_id *>(nlmsg_data(message));
  if (id.family == AF_INET && id.proto == IPPROTO_ESP)
    news.removed.push_back({.destination = {id.daddr.a4}, .spi = ntohl(id.spi)});
}

}  // namespace

NetlinkESPStateWatch::NetlinkESPStateWatch(Handler handler)
    : handler_(std::move(handler)), socket_(nl_socket_alloc()) {}

NetlinkESPStateWatch::~NetlinkESPStateWatch() {
  io_.reset();
  nl_socket_free(socket_);
}

vpnctl::Result<std::unique_ptr<ESPStateWatch>> NetlinkESPStateWatch::start(sd_event *event, Handler handler) {
  std::unique_ptr<NetlinkESPStateWatch> watch(new NetlinkESPStateWatch(std::move(handler)));
  nl_sock *socket = watch->socket_;
  nl_socket_disable_seq_check(socket);
  int code = nl_connect(socket, NETLINK_XFRM);
  if (code >= 0) code = nl_socket_add_memberships(socket, XFRMNLGRP_SA, 0);
  if (code >= 0) code = nl_socket_set_nonblocking(socket);
  if (code < 0) return vpnctl::Error{"Netlink", -code, std::string("listen to the kernel: ") + nl_geterror(code)};
  const auto take = [](nl_msg *message, void *context) -> int {
    note(nlmsg_hdr(message), *static_cast<News *>(context));
    return NL_OK;
  };
  nl_socket_modify_cb(socket, NL_CB_VALID, NL_CB_CUSTOM, take, &watch->news_);
  watch->io_ = linux::EventSource::io(event, nl_socket_get_fd(socket), EPOLLIN,
                                      [raw = watch.get()](std::uint32_t) { raw->read(); });
  return std::unique_ptr<ESPStateWatch>(std::move(watch));
}

void NetlinkESPStateWatch::read() {
  news_ = {};
  int code = 0;
  while (code >= 0) code = nl_recvmsgs_default(socket_);
  news_.all |= code == -NLE_NOMEM;
  if (!news_.all && news_.removed.empty()) return;
  const Handler handler = handler_;
  handler(std::exchange(news_, {}));
}

}  // namespace helper
