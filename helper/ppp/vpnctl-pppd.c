/* vpnctl's plugin for pppd: the channel is a descriptor that the helper hands over, the helper hears about phases and
 * addresses, and answers for the password. PluginProtocol.h describes what is said. In C, because pppd 2.4's headers
 * are not C++.
 *
 * pppd waits in connect_channel() until the tunnel is there. It is started at once, so that its own start and the
 * tunnel's run side by side. */

#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "helper/ppp/Dispute.h"
#include "helper/ppp/PluginProtocol.h"
#include "helper/ppp/pppd-compat.h"

/* pppd refuses a plugin that was built for another version, which is what we want: its structures differ. */
char pppd_version[] = COMPAT_VERSION;
void plugin_init(void);

static char *socket_path;
static int ask_for_dns;
static int helper = -1;           /* the connection */
static int carrier = -1;          /* what the channel's frames travel in, held as long as the channel */
static uint32_t packets_received; /* none at all means that the way back is blocked somewhere */

/* What pppd ends for by itself, a refused account perhaps, and not because it is asked to. Until it is gone it still
 * reads from its channel; a server that hears of the end first hangs up meanwhile, and pppd's exit status would be that
 * of a hang-up. */
static int own_reason;

static struct dispute dispute; /* for a sentence when nothing comes of the negotiation */

/* What the server said before the channel was there, from address and control on. */
static unsigned char early_frame[VPNCTL_PLUGIN_FRAME_SIZE];
static int early_length;
static int link_requested; /* by the server, through the channel */

static compat_option options[] = {
    {"vpnctl-socket", o_string, &socket_path, "where vpnctl's helper listens", OPT_PRIV, NULL, 0, 0, NULL, 0, 0},
    {"vpnctl-peer-dns", o_int, &ask_for_dns, "ask the peer for name servers", OPT_PRIV | OPT_NOARG | 1, NULL, 0, 0,
     NULL, 0, 0},
    {NULL, o_special_noarg, NULL, NULL, 0, NULL, 0, 0, NULL, 0, 0}};

/* tty options (from /etc/ppp/options) mean nothing here, but pppd walks this list. */
static compat_option channel_options[] = {{NULL, o_special_noarg, NULL, NULL, 0, NULL, 0, 0, NULL, 0, 0}};

static struct vpnctl_plugin_header header(uint16_t type) {
  struct vpnctl_plugin_header result = {VPNCTL_PLUGIN_VERSION, type};
  return result;
}

static int tell(const void *message, size_t size) {
  ssize_t sent;
  do sent = send(helper, message, size, MSG_NOSIGNAL);
  while (sent < 0 && errno == EINTR);
  return sent == (ssize_t)size ? 0 : -1;
}

/* While nothing is asked, the helper says nothing: what happens on the socket then is its end. The kernel itself
 * signals us, so that pppd goes down even when the helper was killed, whatever pppd is doing at that moment. */
static void watch_helper(int on) {
  int flags = fcntl(helper, F_GETFL);
  fcntl(helper, F_SETFL, on ? flags | O_ASYNC : flags & ~O_ASYNC);
}

static int helper_has_hung_up(void) {
  char byte;
  ssize_t size = recv(helper, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  /* A helper that died before it read everything leaves an error (ECONNRESET), not an end-of-file. */
  return size == 0 || (size < 0 && errno != EAGAIN && errno != EINTR);
}

/* The kernel puts a record into our queue first and signals afterwards: an answer that we have read meanwhile, and
 * begun to watch again, still brings its signal. */
static void helper_stirred(int number) {
  int before = errno;
  (void)number;
  if (helper_has_hung_up()) kill(getpid(), SIGTERM);
  errno = before;
}

static int connect_to_helper(void) {
  struct sockaddr_un address;
  struct sigaction stirred;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  if (socket_path == NULL || strlen(socket_path) >= sizeof address.sun_path) {
    error("vpnctl: no usable path in the option vpnctl-socket");
    return -1;
  }
  memcpy(address.sun_path, socket_path, strlen(socket_path));
  helper = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (helper < 0 || connect(helper, (struct sockaddr *)&address, sizeof address) < 0) {
    error("vpnctl: cannot reach the helper at %s: %m", socket_path);
    return -1;
  }
  memset(&stirred, 0, sizeof stirred);
  stirred.sa_handler = helper_stirred;
  stirred.sa_flags = SA_RESTART;
  if (sigaction(SIGIO, &stirred, NULL) < 0 || fcntl(helper, F_SETOWN, getpid()) < 0) {
    error("vpnctl: cannot watch the helper: %m");
    return -1;
  }
  return 0;
}

/* Waits for an answer; an end that somebody asks for by a signal wins. Signals are let in only while we wait, so that
 * none slips between the look and the wait. */
static int wait_for_answer(void) {
  struct pollfd wait = {helper, POLLIN, 0};
  sigset_t blocked, before;
  int ready = -1;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGHUP);
  sigprocmask(SIG_BLOCK, &blocked, &before);
  while (!COMPAT_ASKED_TO_END()) {
    ready = ppoll(&wait, 1, NULL, &before);
    if (ready >= 0 || errno != EINTR) break;
  }
  sigprocmask(SIG_SETMASK, &before, NULL);
  return ready == 1 ? 0 : -1;
}

static void let_carrier_go(void) {
  if (carrier >= 0) close(carrier);
  carrier = -1;
}

/* The kernel closes what a process leaves behind in the order of the numbers: a higher one than the channel's outlives
 * it even when pppd is killed. */
static int hold_carrier(int descriptor, int channel) {
  carrier = fcntl(descriptor, F_DUPFD_CLOEXEC, channel + 1);
  close(descriptor);
  return carrier < 0 ? -1 : 0;
}

/* The channel's descriptor that comes with CHANNEL, or -1. */
static int receive_channel(void) {
  struct vpnctl_plugin_channel answer;
  int fds[2] = {-1, -1};
  union {
    struct cmsghdr align;
    char bytes[CMSG_SPACE(sizeof fds)];
  } control;
  struct iovec part = {&answer, sizeof answer};
  struct msghdr message;
  struct cmsghdr *rights;
  memset(&message, 0, sizeof message);
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = &control;
  message.msg_controllen = sizeof control;
  if (recvmsg(helper, &message, MSG_CMSG_CLOEXEC) != (ssize_t)sizeof answer) return -1;
  rights = CMSG_FIRSTHDR(&message);
  if (rights != NULL && rights->cmsg_level == SOL_SOCKET && rights->cmsg_type == SCM_RIGHTS &&
      (rights->cmsg_len == CMSG_LEN(sizeof fds[0]) || rights->cmsg_len == CMSG_LEN(sizeof fds)))
    memcpy(fds, CMSG_DATA(rights), rights->cmsg_len - CMSG_LEN(0));
  if ((fds[1] >= 0 && hold_carrier(fds[1], fds[0]) < 0) || answer.header.version != VPNCTL_PLUGIN_VERSION ||
      answer.header.type != VPNCTL_PLUGIN_CHANNEL || answer.length > sizeof answer.frame) {
    if (fds[0] >= 0) close(fds[0]);
    let_carrier_go();
    return -1;
  }
  early_length = answer.length;
  memcpy(early_frame, answer.frame, sizeof early_frame);
  return fds[0];
}

static int connect_channel(void) {
  struct vpnctl_plugin_header question = header(VPNCTL_PLUGIN_NEED_CHANNEL);
  int fd = -1;
  own_reason = EXIT_OK;
  if (connect_to_helper() == 0 && tell(&question, sizeof question) == 0 && wait_for_answer() == 0)
    fd = receive_channel();
  if (fd < 0) {
    COMPAT_SET_STATUS(COMPAT_ASKED_TO_END() ? EXIT_USER_REQUEST : EXIT_CONNECT_FAILED);
    return -1;
  }
  COMPAT_NAME_DEVICE("vpnctl");
  watch_helper(1);
  if (helper_has_hung_up()) { /* before the watch began */
    close(fd);
    let_carrier_go();
    COMPAT_SET_STATUS(EXIT_CONNECT_FAILED);
    return -1;
  }
  return fd;
}

static int is_link_request(const unsigned char *packet, int length) {
  return length > 4 && (packet[2] << 8 | packet[3]) == PPP_LCP && packet[4] == CONFREQ;
}

static void packet_received(unsigned char *packet, int length) {
  ++packets_received;
  if (is_link_request(packet, length)) link_requested = 1;
  note_dispute(&dispute, packet, length);
}

/* As if it had just been read. By then pppd has read what the channel itself has heard; the same request twice could
 * take down what the first has brought up. */
static void deliver_early_frame(void *context) {
  (void)context;
  if (link_requested) return;
  packet_received(early_frame, early_length);
  lcp_protent.input(0, early_frame + 4, early_length - 4);
}

static int establish_ppp(int fd) {
  int unit = COMPAT_ESTABLISH(fd);
  link_requested = 0;
  if (unit >= 0 && is_link_request(early_frame, early_length)) COMPAT_SOON(deliver_early_frame);
  return unit;
}

static void disestablish_ppp(int fd) {
  COMPAT_DISESTABLISH(fd);
  close(fd);
  let_carrier_go();
}

static struct channel helper_channel = {
    .options = channel_options,
    .connect = connect_channel,
    .establish_ppp = establish_ppp,
    .disestablish_ppp = disestablish_ppp,
};

/* pppd takes an end-of-file on its channel for a hang-up and ends at once, without asking a peer that no longer hears.
 */
static void pretend_hang_up(void) {
  int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (nothing < 0 || fd_ppp < 0) return;
  dup2(nothing, fd_ppp);
  close(nothing);
}

static void phase_changed(void *context, int phase_now) {
  struct vpnctl_plugin_phase message;
  (void)context;
  if (phase_now == PHASE_TERMINATE && own_reason == EXIT_OK && COMPAT_STATUS() != EXIT_USER_REQUEST)
    own_reason = COMPAT_STATUS();
  /* A peer that has stopped answering does not say goodbye either: pppd knows only after it has waited for that. */
  if (phase_now == PHASE_DEAD && COMPAT_STATUS() == EXIT_PEER_DEAD) own_reason = EXIT_PEER_DEAD;
  if (helper < 0) return;
  memset(&message, 0, sizeof message);
  message.header = header(VPNCTL_PLUGIN_PHASE);
  message.phase = phase_now;
  message.packets_received = packets_received;
  tell(&message, sizeof message);
  if (phase_now == PHASE_TERMINATE && helper_has_hung_up()) pretend_hang_up();
}

static void ip_is_up(void *context, int argument) {
  struct vpnctl_plugin_ip_up message;
  (void)context;
  (void)argument;
  if (helper < 0) return;
  memset(&message, 0, sizeof message);
  message.header = header(VPNCTL_PLUGIN_IP_UP);
  strncpy(message.interface, COMPAT_INTERFACE(), sizeof message.interface - 1);
  message.local_address = ipcp_gotoptions[0].ouraddr;
  message.peer_address = ipcp_hisoptions[0].hisaddr;
  /* pppd also takes some that nobody asked for, out of a peer's Nak. */
  if (ask_for_dns) {
    message.dns[0] = ipcp_gotoptions[0].dnsaddr[0];
    message.dns[1] = ipcp_gotoptions[0].dnsaddr[1];
  }
  message.mtu = COMPAT_MTU();
  message.mru = lcp_gotoptions[0].mru;
  /* Both directions. */
  message.encrypted = ccp_fsm[0].state == OPENED && ccp_gotoptions[0].mppe != 0 && ccp_hisoptions[0].mppe != 0;
  tell(&message, sizeof message);
}

static void ending(void *context, int code) {
  struct vpnctl_plugin_exit message;
  (void)context;
  if (helper < 0) return;
  memset(&message, 0, sizeof message);
  message.header = header(VPNCTL_PLUGIN_EXIT);
  message.status = own_reason != EXIT_OK && (code == EXIT_HANGUP || code == EXIT_USER_REQUEST) ? own_reason : code;
  message.packets_received = packets_received;
  message.wanted_authentication = dispute.wanted_authentication;
  message.refused = dispute.refused;
  tell(&message, sizeof message);
}

/* Asks for name servers as `usepeerdns` does, which would also leave a file of its own under /etc/ppp behind. pppd has
 * just copied what it wants into what it will ask for; a `usepeerdns` in /etc/ppp/options ends here, too. */
static void add_dns_request(u_int32_t *peer_address) {
  (void)peer_address;
  ipcp_gotoptions[0].req_dns1 = ask_for_dns != 0;
  ipcp_gotoptions[0].req_dns2 = ask_for_dns != 0;
}

/* Both password hooks. The first call comes without a buffer: can there be a password? */
static int password(char *buffer) {
  struct vpnctl_plugin_header question = header(VPNCTL_PLUGIN_NEED_PASSWORD);
  struct vpnctl_plugin_password answer;
  ssize_t size = -1;
  int found = 0;
  if (buffer == NULL) return 1;
  buffer[0] = 0;
  watch_helper(0);
  if (tell(&question, sizeof question) == 0 && wait_for_answer() == 0) size = recv(helper, &answer, sizeof answer, 0);
  if (size == (ssize_t)sizeof answer && answer.header.version == VPNCTL_PLUGIN_VERSION &&
      answer.header.type == VPNCTL_PLUGIN_PASSWORD && answer.length >= 0 &&
      answer.length <= VPNCTL_PLUGIN_PASSWORD_SIZE) {
    memcpy(buffer, answer.bytes, (size_t)answer.length);
    buffer[answer.length] = 0;
    found = 1;
  }
  explicit_bzero(&answer, sizeof answer);
  watch_helper(1);
  if (helper_has_hung_up()) kill(getpid(), SIGTERM); /* the end came while nobody watched */
  return found;
}

static int pap_password(char *user_name, char *buffer) {
  (void)user_name;
  if (password(buffer)) return 1;
  /* pppd would log in with an empty one, and come up with any server that takes anybody. */
  own_reason = EXIT_AUTH_TOPEER_FAILED;
  kill(getpid(), SIGTERM);
  return 0;
}

static int chap_password(char *user_name, char *buffer) {
  (void)user_name;
  return password(buffer) ? 0 : -1;
}

static int have_password(void) { return 1; }

/* pppd's trace (its option `debug`) goes into logs that many may read, and whoever has seen a challenge and its
 * response can try passwords at home. So packets that authenticate are named in it and not shown. */
enum { PROTOCOL_PAP = 0xc023, PROTOCOL_CHAP = 0xc223, PROTOCOL_EAP = 0xc227, LCP_PROTOCOL_REJECT = 8 };

static int is_authentication(int protocol) {
  return protocol == PROTOCOL_PAP || protocol == PROTOCOL_CHAP || protocol == PROTOCOL_EAP;
}

static int print_authentication(unsigned char *packet, int length, printer_func print, void *argument) {
  if (length >= 2) print(argument, " code=%d id=0x%x, not shown", packet[0], packet[1]);
  return length; /* or pppd would print what is left */
}

static int (*print_any_lcp)(unsigned char *packet, int length, printer_func print, void *argument);

/* A Protocol-Reject brings the rejected packet back. */
static int print_lcp(unsigned char *packet, int length, printer_func print, void *argument) {
  int rejected = length >= 6 ? packet[4] << 8 | packet[5] : 0;
  if (length < 6 || packet[0] != LCP_PROTOCOL_REJECT || !is_authentication(rejected))
    return print_any_lcp(packet, length, print, argument);
  print(argument, " ProtRej id=0x%x proto=0x%x, not shown", packet[1], rejected);
  return length;
}

static void hide_authentication(void) {
  for (int i = 0; protocols[i] != NULL; ++i)
    if (is_authentication(protocols[i]->protocol)) protocols[i]->printpkt = print_authentication;
  if (lcp_protent.printpkt == print_lcp) return; /* done before */
  print_any_lcp = lcp_protent.printpkt;
  lcp_protent.printpkt = print_lcp;
}

void plugin_init(void) {
  prctl(PR_SET_DUMPABLE, 0, 0, 0, 0); /* pppd will hold the password: no core of it, no look into it */
  COMPAT_ADD_OPTIONS(options);
  the_channel = &helper_channel;
  COMPAT_ON_PHASE(phase_changed);
  COMPAT_ON_IP_UP(ip_is_up);
  COMPAT_ON_EXIT(ending);
  pap_check_hook = have_password;
  pap_passwd_hook = pap_password;
  chap_check_hook = have_password;
  chap_passwd_hook = chap_password;
  snoop_recv_hook = packet_received;
  ip_choose_hook = add_dns_request;
  hide_authentication();
  /* What /etc/ppp/options may demand of callers has no option that takes it back: the server need not authenticate
   * itself to us, nobody else's traffic brings this link up, and whether compression (and with it MPPE) is negotiated
   * stands in the options that follow ours. */
  lcp_wantoptions[0].neg_upap = 0;
  lcp_wantoptions[0].neg_chap = 0;
  lcp_wantoptions[0].neg_eap = 0;
  ccp_protent.enabled_flag = 1;
  ccp_wantoptions[0].mppe = 0;
  ccp_allowoptions[0].mppe = 0;
#ifndef VPNCTL_PPPD_2_5
  demand = 0;
#endif
}
