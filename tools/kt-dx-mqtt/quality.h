#ifndef KT_DX_MQTT_QUALITY_H
#define KT_DX_MQTT_QUALITY_H

#include <cstdint>

/** How far a value can be relied on. */
enum class quality { good, uncertain, bad };

/** Why a value is not good; reason_text() gives the word that stands in payloads. */
enum class quality_reason {
    none,
    no_frame_yet,        // uncertain: nothing was received for this tag since the service started
    never_written,       // uncertain: nobody has set this tag since the service started
    device_timeout,      // bad: a transaction of the device timed out
    not_refreshed,       // bad: the device is back, this value is from before its silence
    transaction_timeout, // bad: older than the consume timeout of its own transaction
    fault_protection,    // bad: the service sends the fault value, nobody has set the tag in time
    service_down         // bad: the provider of the tag is gone
};

struct tag_quality {
    quality grade = quality::uncertain;
    quality_reason reason = quality_reason::no_frame_yet;
    bool operator==(const tag_quality &) const = default;
};

/** What the status tag of the device says. */
enum class device_state { none, no_frame_yet, communicating, timed_out };

/** Values of a device status tag; other values count as a timeout. */
constexpr uint32_t status_no_frame_yet = 0x80000000;
constexpr uint32_t status_communicating = 0;
constexpr uint32_t status_timed_out = 0x80000001;

device_state device_state_of(uint32_t status);

/** Times are milliseconds of the monotonic clock. */
struct quality_facts {
    bool provider_alive = false;
    bool written_by_others = false; // a write-only tag
    bool is_status = false;         // a device status tag, which is itself about quality
    uint32_t writes = 0;            // without the zero that the service starts a tag with
    int64_t written_ms = 0;
    device_state device = device_state::none; // none: the tag belongs to no known device
    int64_t device_since_ms = 0;              // last change of the device's status
    int64_t max_age_ms = 0; // consume timeout of the tag's transaction, 0 when none is known
    bool in_fault = false;
    int64_t now_ms = 0;
};

/** Nothing but the facts decides. */
tag_quality judge_quality(const quality_facts &facts);

/** "good", "uncertain", "bad" */
const char *quality_text(quality grade);

/** "", "no_frame_yet", ... */
const char *reason_text(quality_reason reason);

#endif
