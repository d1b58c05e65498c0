#ifndef KT_DX_MQTT_LOG_H
#define KT_DX_MQTT_LOG_H

#include <string_view>

/** One line on standard error, "kt-dx-mqtt: TEXT". Any thread. Control characters become "?". */
void log_line(std::string_view text);

#endif
