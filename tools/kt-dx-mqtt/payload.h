#ifndef KT_DX_MQTT_PAYLOAD_H
#define KT_DX_MQTT_PAYLOAD_H

#include "tag_table.h"
#include "writes.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

/*
 * The JSON texts that the bridge publishes, one object each without a line end. Any thread. Bytes
 * that are no UTF-8 become U+FFFD. Times are milliseconds since 1970, UTC.
 */

/** "2026-01-31T12:00:00.250Z" */
std::string rfc3339_text(int64_t unix_ms);

/** {"value":1500,"type":"uint16","quality":"good","reason":"","timestamp":"...","sequence":7} */
std::string value_payload(const tag_snapshot &tag);

/** {"id":"a1","outcome":"refused","reason":"tag is read-only","timestamp":"..."} */
std::string result_payload(const write_result &result);

/**
 * {"name":"...","host":"...","message":"...","timestamp":"..."}
 *
 * @param line  of the event agent's file
 * @return empty when the line is no event
 */
std::string event_payload(std::string_view line);

/**
 * {"port":1,"state":"Normal","rxCount":120,...,"transactionList":[...],"timestamp":"..."}
 *
 * @param json  the object that the service's REST API gave for the port
 * @return empty when it is none
 */
std::string diagnostics_payload(int port, std::string_view json, int64_t now_ms);

/** {"state":"online","version":"...","timestamp":"..."}: retained while the bridge is connected. */
std::string online_payload(std::string_view version, int64_t now_ms);

/** {"state":"offline","reason":"connection lost"}: the last will. */
std::string will_payload();

/** {"state":"offline","reason":"stopped","timestamp":"..."}: published before an orderly end. */
std::string stopped_payload(int64_t now_ms);

/** {"<name>":<count>,...,"timestamp":"..."}: the bridge's own counters, in the order given. */
std::string statistics_payload(std::span<const std::pair<std::string_view, uint64_t>> counters,
                               int64_t now_ms);

#endif
