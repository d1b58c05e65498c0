#ifndef KT_SOFTCAN_FILTER_H
#define KT_SOFTCAN_FILTER_H

#include <linux/can.h>
#include <span>

namespace softcan {

/** What a raw socket receives. */
struct receive_rules {
    std::span<const can_filter> filters;
    can_err_mask_t err_mask = 0; // CAN_RAW_ERR_FILTER
    bool join = false;           // CAN_RAW_JOIN_FILTERS: every filter has to match
};

/** Whether a raw socket with those rules receives a frame with that identifier and flags. */
bool accepts(const receive_rules &rules, canid_t can_id);

} // namespace softcan

#endif
