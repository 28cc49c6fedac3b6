/* What the helper and its pppd plugin say to each other, over a named SOCK_SEQPACKET socket in the link's private
 * folder. C and C++ read this file. One message is one record of its type's exact size, in the machine's own byte
 * order (both ends run on one machine); addresses are in network byte order.
 *
 * The plugin speaks; the helper only answers what it is asked. Usual sequence, plugin to helper:
 *
 *   NEED_CHANNEL    answered by CHANNEL with the tunnel's descriptor (SCM_RIGHTS), which may take as long as it takes;
 *                   a second descriptor, if there is one, is only held until the first is closed
 *   PHASE ...       each phase of pppd
 *   NEED_PASSWORD   answered by PASSWORD
 *   IP_UP           IPCP is open and the interface is configured
 *   PHASE ...
 *   EXIT            pppd is about to end with this status
 *
 * The helper shuts its direction down (or dies) when the line is gone: pppd then ends as after a hang-up, at once.
 */
#ifndef VPNCTL_PLUGIN_PROTOCOL_H
#define VPNCTL_PLUGIN_PROTOCOL_H

#include <stdint.h>

#define VPNCTL_PLUGIN_VERSION 4
#define VPNCTL_PLUGIN_NAME_SIZE 16 /* IFNAMSIZ, the zero byte included */
#define VPNCTL_PLUGIN_FRAME_SIZE 256
#define VPNCTL_PLUGIN_PASSWORD_SIZE 255 /* pppd's buffers hold 256 bytes with the zero byte */

enum {
  VPNCTL_PLUGIN_NEED_CHANNEL = 1,
  VPNCTL_PLUGIN_PHASE = 2,
  VPNCTL_PLUGIN_NEED_PASSWORD = 3,
  VPNCTL_PLUGIN_IP_UP = 4,
  VPNCTL_PLUGIN_EXIT = 5,
  VPNCTL_PLUGIN_CHANNEL = 65,
  VPNCTL_PLUGIN_PASSWORD = 66
};

struct vpnctl_plugin_header {
  uint16_t version; /* VPNCTL_PLUGIN_VERSION */
  uint16_t type;
};

/* NEED_CHANNEL and NEED_PASSWORD are a header and nothing else. */

struct vpnctl_plugin_channel {
  struct vpnctl_plugin_header header;
  uint16_t length; /* of LCP's request that came before the channel was there, from address and control on; 0: none */
  unsigned char frame[VPNCTL_PLUGIN_FRAME_SIZE];
};

struct vpnctl_plugin_phase {
  struct vpnctl_plugin_header header;
  int32_t phase;             /* pppd's number */
  uint32_t packets_received; /* since the channel was there */
};

struct vpnctl_plugin_ip_up {
  struct vpnctl_plugin_header header;
  char interface[VPNCTL_PLUGIN_NAME_SIZE]; /* zero-terminated */
  uint32_t local_address;
  uint32_t peer_address;
  uint32_t dns[2];   /* 0: none */
  int32_t mtu;       /* of the interface */
  int32_t mru;       /* as negotiated */
  int32_t encrypted; /* 1: MPPE in both directions; 0: in clear */
};

struct vpnctl_plugin_exit {
  struct vpnctl_plugin_header header;
  int32_t status;
  uint32_t packets_received;
  uint32_t wanted_authentication; /* by the server: the protocol's number, times 256, and CHAP's algorithm; 0: none */
  uint32_t refused;               /* by the server at last, as follows */
};
#define VPNCTL_PLUGIN_REFUSED_ADDRESS 1u    /* it gives us none */
#define VPNCTL_PLUGIN_REFUSED_ENCRYPTION 2u /* it takes no MPPE */

struct vpnctl_plugin_password {
  struct vpnctl_plugin_header header;
  int32_t length; /* -1: there is none to give */
  unsigned char bytes[VPNCTL_PLUGIN_PASSWORD_SIZE + 1];
};

#endif
