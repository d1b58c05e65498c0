#ifndef KT_DX_MQTT_DISCOVERY_H
#define KT_DX_MQTT_DISCOVERY_H

#include "settings.h"
#include "tag_table.h"

#include <string>

/** A retained message; an empty payload takes an entity away. */
struct discovery_message {
    std::string topic;
    std::string payload;
};

/**
 * What makes a tag an entity of Home Assistant: a sensor when the service writes it, a number or a
 * text when others do. It is available while the bridge is online and the value is good.
 *
 * To be published when a tag appears and after every reconnect, before its value. Any thread.
 */
discovery_message discovery_config(const bridge_settings &settings, const tag_snapshot &tag);

/** What takes the entity of a tag away that is gone. */
discovery_message discovery_removal(const bridge_settings &settings, const tag_snapshot &tag);

#endif
