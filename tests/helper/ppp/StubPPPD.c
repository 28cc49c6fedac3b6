#include "StubPPPD.h"

/* The order matters: the others lean on pppd.h. */
/* clang-format off */
#include <pppd/pppd.h>
#include <pppd/fsm.h>
#include <pppd/ccp.h>
#include <pppd/ipcp.h>
#include <pppd/lcp.h>
/* clang-format on */
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

struct channel *the_channel;
char ifname[MAXIFNAMELEN] = "ppp7";
int ifunit = 7;
int got_sigterm;
int fd_ppp = -1;
volatile int status;
bool demand = 1;
char ppp_devnam[MAXPATHLEN];
struct notifier *phasechange, *exitnotify, *ip_up_notifier;
int (*pap_check_hook)(void);
int (*pap_passwd_hook)(char *user, char *passwd);
int (*chap_check_hook)(void);
int (*chap_passwd_hook)(char *user, char *passwd);
void (*snoop_recv_hook)(unsigned char *p, int len);
void (*ip_choose_hook)(u_int32_t *);
lcp_options lcp_wantoptions[NUM_PPP] = {{.neg_upap = 1, .neg_chap = 1, .neg_eap = 1}};
lcp_options lcp_gotoptions[NUM_PPP] = {{.mru = 1500}};
struct protent ccp_protent; /* "noccp" */
fsm ccp_fsm[NUM_PPP];
ccp_options ccp_wantoptions[NUM_PPP] = {{.mppe = 1}};
ccp_options ccp_allowoptions[NUM_PPP] = {{.mppe = 1}};
ccp_options ccp_gotoptions[NUM_PPP];
ccp_options ccp_hisoptions[NUM_PPP];
ipcp_options ipcp_gotoptions[NUM_PPP] = {{.ouraddr = 11, .dnsaddr = {13, 14}}};
ipcp_options ipcp_hisoptions[NUM_PPP] = {{.hisaddr = 12}};

static int print_all(u_char *packet, int size, printer_func print, void *argument) {
  int i;
  for (i = 0; i < size; ++i) print(argument, " %.2x", packet[i]);
  return size;
}
static u_char lcp_packet[300];
static int lcp_size = -1;
static void take_lcp(int unit, u_char *packet, int size) {
  if (unit != 0 || size < 0 || size > (int)sizeof lcp_packet) return;
  memcpy(lcp_packet, packet, (size_t)size);
  lcp_size = size;
}
struct protent lcp_protent = {.protocol = 0xc021, .name = "LCP", .printpkt = print_all, .input = take_lcp};
static struct protent pap = {.protocol = 0xc023, .name = "PAP", .printpkt = print_all};
static struct protent chap = {.protocol = 0xc223, .name = "CHAP", .printpkt = print_all};
static struct protent eap = {.protocol = 0xc227, .name = "EAP", .printpkt = print_all};
static struct protent ipcp = {.protocol = 0x8021, .name = "IPCP", .printpkt = print_all};
struct protent *protocols[] = {&lcp_protent, &pap, &chap, &eap, &ipcp, NULL};

static option_t *known_options;

void add_options(option_t *options) { known_options = options; }
void error(char *format, ...) { (void)format; }
int netif_get_mtu(int unit) { return unit == 0 ? 1400 : -1; }
int generic_establish_ppp(int fd) { return fd; }
static void (*due)(void *);
void timeout(void (*function)(void *), void *context, int seconds, int microseconds) {
  if (context == NULL && seconds == 0 && microseconds <= 10000) due = function;
}
void generic_disestablish_ppp(int fd) { (void)fd; }
size_t strlcpy(char *to, const char *from, size_t size) {
  snprintf(to, size, "%s", from);
  return strlen(from);
}

/* One handler each is all there is. */
static struct notifier handlers[3];
static int handlers_used;
void add_notifier(struct notifier **list, notify_func function, void *context) {
  struct notifier *handler = &handlers[handlers_used++];
  handler->func = function;
  handler->arg = context;
  *list = handler;
}

void stub_set_option(const char *name, const char *value) {
  option_t *option;
  for (option = known_options; option->name != NULL; ++option) {
    if (strcmp(option->name, name) != 0) continue;
    if (option->type == o_string) {
      free(*(char **)option->addr);
      *(char **)option->addr = strdup(value);
    }
    if (option->type == o_int) *(int *)option->addr = (int)OPT_VAL(option->flags);
  }
}
int stub_channel_establish(int fd) {
  due = NULL;
  lcp_size = -1;
  return the_channel->establish_ppp(fd);
}
void stub_channel_disestablish(int fd) { the_channel->disestablish_ppp(fd); }
void stub_next_turn(void) {
  void (*function)(void *) = due;
  due = NULL;
  if (function != NULL) function(NULL);
}
int stub_lcp_packet(unsigned char *packet) {
  if (lcp_size > 0) memcpy(packet, lcp_packet, (size_t)lcp_size);
  return lcp_size;
}
int stub_channel_connect(void) { return the_channel->connect(); }
void stub_phase(int phase) { phasechange->func(phasechange->arg, phase); }
void stub_ip_up(void) { ip_up_notifier->func(ip_up_notifier->arg, 0); }
void stub_exit(int code) { exitnotify->func(exitnotify->arg, code); }
void stub_receive_packet(const unsigned char *packet, int size) {
  unsigned char *copy = malloc((size_t)size); /* so that a sanitizer sees who reads behind it */
  memcpy(copy, packet, (size_t)size);
  snoop_recv_hook(copy, size);
  free(copy);
}
static char user_name[] = "alice";
int stub_chap_password(char *buffer) { return chap_passwd_hook(user_name, buffer); }
int stub_pap_password(char *buffer) { return pap_passwd_hook(user_name, buffer); }
int stub_have_password(void) { return chap_check_hook() == 1 && pap_check_hook() == 1; }
void stub_choose_ip(void) {
  u_int32_t address = 0;
  ip_choose_hook(&address);
}
int stub_asks_for_dns(void) { return ipcp_gotoptions[0].req_dns1 && ipcp_gotoptions[0].req_dns2; }
int stub_demands_authentication(void) {
  return lcp_wantoptions[0].neg_upap || lcp_wantoptions[0].neg_chap || lcp_wantoptions[0].neg_eap || demand;
}
int stub_negotiates_compression(void) { return ccp_protent.enabled_flag; }
int stub_wants_encryption(void) { return ccp_wantoptions[0].mppe != 0 || ccp_allowoptions[0].mppe != 0; }
void stub_set_encryption(int opened, int received, int sent) {
  ccp_fsm[0].state = opened ? OPENED : CLOSED;
  ccp_gotoptions[0].mppe = (u_char)received;
  ccp_hisoptions[0].mppe = (u_char)sent;
}
int stub_status(void) { return status; }
void stub_set_status(int code) { status = code; }
void stub_ask_to_end(void) { got_sigterm = 1; }
void stub_set_ppp_fd(int fd) { fd_ppp = fd; }
const char *stub_version(void) { return VERSION; }

static char trace[1000];
static void add_to_trace(void *unused, char *format, ...) {
  size_t used = strlen(trace);
  va_list arguments;
  (void)unused;
  va_start(arguments, format);
  vsnprintf(trace + used, sizeof trace - used, format, arguments);
  va_end(arguments);
}
const char *stub_trace(int protocol, const unsigned char *packet, int size) {
  unsigned char copy[100];
  int i, printed = 0;
  memcpy(copy, packet, (size_t)size);
  trace[0] = 0;
  for (i = 0; protocols[i] != NULL; ++i)
    if (protocols[i]->protocol == protocol) {
      add_to_trace(NULL, "[%s", protocols[i]->name);
      printed = protocols[i]->printpkt(copy, size, add_to_trace, NULL);
      add_to_trace(NULL, "]");
    }
  for (i = printed; i < size; ++i) add_to_trace(NULL, " %.2x", copy[i]);
  return trace;
}
