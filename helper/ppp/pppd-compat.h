/* The differences between pppd 2.4.9's and 2.5's plugin interfaces, in one place. */
#ifndef VPNCTL_PPPD_COMPAT_H
#define VPNCTL_PPPD_COMPAT_H

/* The order matters: the others lean on pppd.h. */
/* clang-format off */
#ifdef VPNCTL_PPPD_2_5

#include <linux/ppp_defs.h>
#include <pppd/pppdconf.h>
#include <pppd/pppd.h>
#include <pppd/chap.h>
#include <pppd/fsm.h>
#include <pppd/ccp.h>
#include <pppd/ipcp.h>
#include <pppd/lcp.h>
#include <pppd/options.h>
#include <pppd/upap.h>

/* 2.5 has moved this out of its public headers, not out of pppd. */
extern int fd_ppp;

#define COMPAT_VERSION PPPD_VERSION
#define COMPAT_INTERFACE() ppp_ifname()
#define COMPAT_UNIT() ppp_ifunit()
#define COMPAT_ASKED_TO_END() ppp_signaled(SIGTERM)
#define COMPAT_SET_STATUS(code) ppp_set_status(code)
#define COMPAT_STATUS() ppp_status()
#define COMPAT_MTU() ppp_get_mtu(0)
#define COMPAT_ADD_OPTIONS(options) ppp_add_options(options)
#define COMPAT_NAME_DEVICE(name) ppp_set_pppdevnam(name)
#define COMPAT_ON_PHASE(handler) ppp_add_notify(NF_PHASE_CHANGE, handler, NULL)
#define COMPAT_ON_IP_UP(handler) ppp_add_notify(NF_IP_UP, handler, NULL)
#define COMPAT_ON_EXIT(handler) ppp_add_notify(NF_EXIT, handler, NULL)
#define COMPAT_ESTABLISH(fd) ppp_generic_establish(fd)
#define COMPAT_SOON(function) ppp_timeout(function, NULL, 0, 10000)
#define COMPAT_DISESTABLISH(fd) ppp_generic_disestablish(fd)
typedef struct option compat_option;

#else

#include <pppd/pppd.h>
#include <pppd/fsm.h>
#include <pppd/ccp.h>
#include <pppd/ipcp.h>
#include <pppd/lcp.h>

#define COMPAT_VERSION VERSION
#define COMPAT_INTERFACE() ifname
#define COMPAT_UNIT() ifunit
#define COMPAT_ASKED_TO_END() (got_sigterm != 0)
#define COMPAT_SET_STATUS(code) (status = (code))
#define COMPAT_STATUS() (status)
#define COMPAT_MTU() netif_get_mtu(0)
#define COMPAT_ADD_OPTIONS(options) add_options(options)
#define COMPAT_NAME_DEVICE(name) strlcpy(ppp_devnam, name, sizeof ppp_devnam)
#define COMPAT_ON_PHASE(handler) add_notifier(&phasechange, handler, NULL)
#define COMPAT_ON_IP_UP(handler) add_notifier(&ip_up_notifier, handler, NULL)
#define COMPAT_ON_EXIT(handler) add_notifier(&exitnotify, handler, NULL)
#define COMPAT_ESTABLISH(fd) generic_establish_ppp(fd)
#define COMPAT_SOON(function) timeout(function, NULL, 0, 10000)
#define COMPAT_DISESTABLISH(fd) generic_disestablish_ppp(fd)
typedef option_t compat_option;

#endif

/* clang-format on */

#endif
