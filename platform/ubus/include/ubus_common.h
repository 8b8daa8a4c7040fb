/* ubus_common.h - build-wide constants of the bus: the default socket path
 * and the small helpers the other bus headers use. */
#ifndef UBUS_COMMON_H
#define UBUS_COMMON_H

#include <libubox/utils.h>

/* Functions of the bus library never throw; C++ callers see that in the type. */
#ifdef __cplusplus
#define UBUS_NOEXCEPT noexcept
#else
#define UBUS_NOEXCEPT
#endif

/* Where the broker listens and where clients connect when given no path: the
 * path current OpenWrt builds with (older releases used /var/run/ubus.sock). */
#ifndef UBUS_UNIX_SOCKET
#define UBUS_UNIX_SOCKET "/var/run/ubus/ubus.sock"
#endif

#endif /* UBUS_COMMON_H */
