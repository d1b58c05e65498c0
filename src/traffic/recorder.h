#ifndef KT_TRAFFIC_RECORDER_H
#define KT_TRAFFIC_RECORDER_H

#include <parson.h>

#include <cstdint>
#include <span>

/*
 * Traffic recorder: frames of a port, appended to a CSV file and a file of JSON lines while
 * recording is on. A file that would exceed traffic_file_limit_bytes ends the recording quietly.
 *
 * Codes: 0; -1 invalid argument; -2 out of memory; -5 a file cannot be opened or written; -6 a line
 * of the log is no JSON; -7 a JSON value cannot be made; -8 the inter-process lock cannot be taken.
 * A port index at or above the port count is -1 (logged).
 *
 * THREAD SAFETY: init and deinit belong to the main thread while no port thread runs;
 * can_proprietary_traffic_record_log() to the port threads; everything else may be called from any
 * thread at any time. Locks: the recorder's lifetime lock, inside it a port's mutex (control state
 * only). The inter-process lock of a port's JSON file is taken with neither held while recording.
 */

constexpr long traffic_file_limit_bytes = 384000;

enum traffic_direction { TRAFFIC_SEND = 0, TRAFFIC_RECEIVE = 1 };

/** Make the records, all off, and the folder of the files. @retval 0 @retval -2 no port (logged) */
int can_proprietary_traffic_init(uint8_t port_count);
void can_proprietary_traffic_deinit();

/** Empty both files, restart the row numbers of all ports at 1 and record. */
int can_proprietary_traffic_start(int port);
int can_proprietary_traffic_stop(int port);

/** @retval 1 recording @retval 0 not recording @retval -1 invalid port */
int can_proprietary_traffic_get_control_state(int port);

/** Make now the zero of the port's times. */
int can_proprietary_traffic_init_start_time(int port);

/**
 * Record one frame; 0 at once while the port is not recording. Needs no memory but, the first time,
 * that of the inter-process lock.
 *
 * @param data       room for data_length bytes
 * @param can_id     as the SocketCAN frame carries it, flags included
 * @param rtr        1 for a remote frame
 * @param data_length  0 to 8
 */
int can_proprietary_traffic_record_log(const uint8_t *data,
                                       traffic_direction direction,
                                       uint32_t can_id,
                                       int rtr,
                                       uint8_t data_length,
                                       uint16_t port);

/** The recorded lines as an array. @param[out] log the caller's to free; NULL on failure */
int can_proprietary_traffic_get_log(JSON_Value **log, int port);

#endif
