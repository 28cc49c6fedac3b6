#include "helper/ppp/Dispute.h"

#include <stddef.h>
#include <string.h>

#include "helper/ppp/PluginProtocol.h"

/* RFC 1661, 1332, 1962. */
enum { PROTOCOL_LCP = 0xc021, PROTOCOL_CCP = 0x80fd, PROTOCOL_IPCP = 0x8021 };
enum { CODE_REQUEST = 1, CODE_ACK = 2, CODE_NAK = 3, CODE_REJECT = 4, CODE_PROTOCOL_REJECT = 8 };
enum { LCP_AUTHENTICATION = 3, IPCP_ADDRESS = 3 };

/* The value of the first option of that kind with at least SIZE bytes of it, or null. */
static const unsigned char *find_option(const unsigned char *at, const unsigned char *end, int kind, int size) {
  while (end - at >= 2 && at[1] >= 2 && at[1] <= end - at) {
    if (at[0] == kind && at[1] >= 2 + size) return at + 2;
    at += at[1];
  }
  return NULL;
}

static void note_link_request(struct dispute *dispute, const unsigned char *data, const unsigned char *end) {
  const unsigned char *value = find_option(data, end, LCP_AUTHENTICATION, 2);
  if (value == NULL) return;
  dispute->wanted_authentication = (uint32_t)value[0] << 16 | (uint32_t)value[1] << 8;
  if (value[-1] > 4) dispute->wanted_authentication |= value[2];
}

static void note_rejected_protocol(struct dispute *dispute, const unsigned char *data) {
  int protocol = data[0] << 8 | data[1];
  if (protocol == PROTOCOL_CCP) dispute->refused |= VPNCTL_PLUGIN_REFUSED_ENCRYPTION;
  if (protocol == PROTOCOL_IPCP) dispute->refused |= VPNCTL_PLUGIN_REFUSED_ADDRESS;
}

/* The address that was acknowledged, proposed or rejected. */
static void note_address(struct dispute *dispute, int code, const unsigned char *data, const unsigned char *end) {
  static const unsigned char none[4];
  const unsigned char *value = find_option(data, end, IPCP_ADDRESS, sizeof none);
  if (value == NULL) return;
  dispute->refused &= ~VPNCTL_PLUGIN_REFUSED_ADDRESS;
  if (code == CODE_REJECT || memcmp(value, none, sizeof none) == 0) dispute->refused |= VPNCTL_PLUGIN_REFUSED_ADDRESS;
}

void note_dispute(struct dispute *dispute, const unsigned char *packet, int length) {
  const unsigned char *data, *end;
  int protocol, code, size;
  if (length < 8) return;
  protocol = packet[2] << 8 | packet[3];
  code = packet[4];
  size = packet[6] << 8 | packet[7];
  if (size < 4 || size > length - 4) return;
  data = packet + 8;
  end = packet + 4 + size;
  if (protocol == PROTOCOL_LCP && code == CODE_REQUEST)
    note_link_request(dispute, data, end);
  else if (protocol == PROTOCOL_LCP && code == CODE_PROTOCOL_REJECT && end - data >= 2)
    note_rejected_protocol(dispute, data);
  else if (protocol == PROTOCOL_CCP && code == CODE_REJECT)
    dispute->refused |= VPNCTL_PLUGIN_REFUSED_ENCRYPTION;
  else if (protocol == PROTOCOL_IPCP && code >= CODE_ACK && code <= CODE_REJECT)
    note_address(dispute, code, data, end);
}
