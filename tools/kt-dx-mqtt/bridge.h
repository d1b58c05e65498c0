#ifndef KT_DX_MQTT_BRIDGE_H
#define KT_DX_MQTT_BRIDGE_H

#include "settings.h"

/**
 * Run until SIGTERM, SIGINT or SIGQUIT: then the gateway is announced as offline and the connection
 * closed.
 *
 * @return exit status: 0 after a signal, 1 when the bridge cannot be started (logged)
 */
int run_bridge(const bridge_settings &settings);

#endif
