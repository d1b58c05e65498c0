#include "filter.h"

#include <cstddef>

namespace softcan {
namespace {

constexpr canid_t eff_rtr_flags = CAN_EFF_FLAG | CAN_RTR_FLAG;

// An error frame meets only filters whose mask has CAN_ERR_FLAG, and those meet nothing else.
bool matches(const can_filter &filter, canid_t can_id) {
    if ((filter.can_mask & CAN_ERR_FLAG) != 0) {
        return (can_id & CAN_ERR_FLAG) != 0 && (can_id & filter.can_mask & CAN_ERR_MASK) != 0;
    }
    if ((can_id & CAN_ERR_FLAG) != 0) {
        return false;
    }
    canid_t mask = filter.can_mask;
    if ((mask & CAN_EFF_FLAG) != 0 && (filter.can_id & CAN_EFF_FLAG) == 0) {
        mask &= CAN_SFF_MASK | eff_rtr_flags;
    }
    const bool equal = (can_id & mask) == (filter.can_id & mask);
    return (filter.can_id & CAN_INV_FILTER) != 0 ? !equal : equal;
}

} // namespace

bool accepts(const receive_rules &rules, canid_t can_id) {
    std::size_t met = 0;
    if ((can_id & CAN_ERR_FLAG) != 0 && (can_id & rules.err_mask & CAN_ERR_MASK) != 0) {
        ++met;
    }
    for (const can_filter &filter : rules.filters) {
        met += matches(filter, can_id) ? 1U : 0U;
        if (met != 0 && !rules.join) {
            return true;
        }
    }
    return met != 0 && (!rules.join || met >= rules.filters.size());
}

} // namespace softcan
