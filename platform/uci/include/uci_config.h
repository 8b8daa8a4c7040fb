/* uci_config.h - build options of the host configuration library. */
#ifndef NMS_HOST_UCI_CONFIG_H
#define NMS_HOST_UCI_CONFIG_H

/* No loadable backends or hooks: one file backend is built in. */
#undef UCI_PLUGIN_SUPPORT
/* No run-time type checks in the uci_to_* casts. */
#undef UCI_DEBUG_TYPECAST

#endif
