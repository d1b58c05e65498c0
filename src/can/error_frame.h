#ifndef KT_CAN_ERROR_FRAME_H
#define KT_CAN_ERROR_FRAME_H

#include "can/runtime.h"

struct diag_record;

/** Turn an error frame into bus state, counters, events and LED. Port thread. */
void can_error_notification(const can_module *module, diag_record *record, const can_frame &frame);

#endif
