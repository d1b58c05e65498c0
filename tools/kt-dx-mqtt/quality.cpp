#include "quality.h"

namespace {

// A value and the status of its device are dated by the coarse clock and read one after the other:
// a frame that ends a silence may seem to be this much older than the end of the silence.
constexpr int64_t clock_slack_ms = 50;

constexpr tag_quality good = {quality::good, quality_reason::none};

tag_quality uncertain(quality_reason reason) {
    return {quality::uncertain, reason};
}

tag_quality bad(quality_reason reason) {
    return {quality::bad, reason};
}

tag_quality judge_received(const quality_facts &facts) {
    if (facts.device == device_state::timed_out) {
        return bad(quality_reason::device_timeout);
    }
    if (facts.device == device_state::no_frame_yet || facts.writes == 0) {
        return uncertain(quality_reason::no_frame_yet);
    }
    // Whoever of the device was heard again: this value was not.
    if (facts.device == device_state::communicating &&
        facts.written_ms + clock_slack_ms < facts.device_since_ms) {
        return bad(quality_reason::not_refreshed);
    }
    if (facts.max_age_ms > 0 && facts.now_ms - facts.written_ms > facts.max_age_ms) {
        return bad(quality_reason::transaction_timeout);
    }
    return good;
}

} // namespace

device_state device_state_of(uint32_t status) {
    switch (status) {
    case status_no_frame_yet:
        return device_state::no_frame_yet;
    case status_communicating:
        return device_state::communicating;
    default:
        return device_state::timed_out;
    }
}

tag_quality judge_quality(const quality_facts &facts) {
    if (!facts.provider_alive) {
        return bad(quality_reason::service_down);
    }
    if (facts.is_status) {
        return good;
    }
    if (!facts.written_by_others) {
        return judge_received(facts);
    }
    if (facts.in_fault) {
        return bad(quality_reason::fault_protection);
    }
    return facts.writes == 0 ? uncertain(quality_reason::never_written) : good;
}

const char *quality_text(quality grade) {
    switch (grade) {
    case quality::good:
        return "good";
    case quality::uncertain:
        return "uncertain";
    default:
        return "bad";
    }
}

const char *reason_text(quality_reason reason) {
    switch (reason) {
    case quality_reason::no_frame_yet:
        return "no_frame_yet";
    case quality_reason::never_written:
        return "never_written";
    case quality_reason::device_timeout:
        return "device_timeout";
    case quality_reason::not_refreshed:
        return "not_refreshed";
    case quality_reason::transaction_timeout:
        return "transaction_timeout";
    case quality_reason::fault_protection:
        return "fault_protection";
    case quality_reason::service_down:
        return "service_down";
    default:
        return "";
    }
}
