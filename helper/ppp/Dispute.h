/* What the server wants and refuses while PPP is negotiated, as its packets say it. Part of the plugin; it knows
 * nothing of pppd. C and C++ read this file. */
#ifndef VPNCTL_DISPUTE_H
#define VPNCTL_DISPUTE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* As in struct vpnctl_plugin_exit. */
struct dispute {
  uint32_t wanted_authentication;
  uint32_t refused;
};

/* PACKET, of LENGTH bytes, begins with address, control and protocol. What is malformed says nothing. */
void note_dispute(struct dispute *dispute, const unsigned char *packet, int length);

#ifdef __cplusplus
}
#endif

#endif
