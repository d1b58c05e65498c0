#ifndef KT_CAN_PORT_H
#define KT_CAN_PORT_H

/**
 * Thread of one CAN port: bring the interface up, build the runtime records, then send and receive
 * until the service stops or restarts; release everything.
 *
 * A port that cannot start ends alone; the others go on.
 *
 * @param port_index  pointer to the 0-based index (uint32_t), valid for the life of the thread
 * @return NULL, at the end of the thread
 */
void *can_port_handler(void *port_index);

#endif
