/* Just enough of pppd's inside to load the plugin into a test: the variables and functions that it uses, and a way to
 * look at them from C++, which pppd's own headers are not made for. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

void stub_set_option(const char *name, const char *value);
int stub_channel_connect(void);
int stub_channel_establish(int fd);
void stub_channel_disestablish(int fd);
/* What was to happen soon. */
void stub_next_turn(void);
/* What LCP was given to read, into 300 bytes, and its size; -1: nothing. */
int stub_lcp_packet(unsigned char *packet);
void stub_phase(int phase);
void stub_ip_up(void);
void stub_exit(int code);
/* With address and control in front. */
void stub_receive_packet(const unsigned char *packet, int size);
int stub_chap_password(char *buffer);
int stub_pap_password(char *buffer);
int stub_have_password(void);
void stub_choose_ip(void);
int stub_asks_for_dns(void);
int stub_demands_authentication(void);
int stub_negotiates_compression(void);
int stub_wants_encryption(void);
void stub_set_encryption(int opened, int received, int sent);
int stub_status(void);
void stub_set_status(int code);
void stub_ask_to_end(void);
void stub_set_ppp_fd(int fd);
const char *stub_version(void);
/* How `debug` would show a packet of that protocol: until the next call. */
const char *stub_trace(int protocol, const unsigned char *packet, int size);

#ifdef __cplusplus
}
#endif
