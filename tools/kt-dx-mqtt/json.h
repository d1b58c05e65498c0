#ifndef KT_DX_MQTT_JSON_H
#define KT_DX_MQTT_JSON_H

#include <jansson.h>
#include <memory>

struct release_json {
    void operator()(json_t *value) const noexcept { json_decref(value); }
};
using json_ptr = std::unique_ptr<json_t, release_json>;

#endif
