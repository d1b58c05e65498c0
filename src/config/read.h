#ifndef KT_CONFIG_READ_H
#define KT_CONFIG_READ_H

#include "config/model.h"

#include <cstdint>
#include <sqlite3.h>

/*
 * Rows of the working copy as records.
 *
 * Operations without a connection argument open the working copy themselves and see one committed
 * state of it throughout. Ids are taken at full width: one that no record could hold is not found.
 *
 * Results, unless said otherwise: 0 read; -1 bad argument, working copy not to be opened, failed
 * statement or row not found (each logged); -7 out of memory. Lists come in row order and belong to
 * the caller (conf_free_* of config/model.h). A failure leaves no partly built list with the
 * caller.
 *
 * THREAD SAFETY: any thread; blocks on SQLite's locks for at most the busy timeout.
 */

/** The settings of a port; the record is zeroed first. */
int can_proprietary_conf_get_interface_config(interface_config *record, int portId);

/** The devices of a port without their transactions. */
int can_proprietary_conf_get_interface_device_config(device_config **list, int portId);

/**
 * The devices of a port, each with transactions, frames and blocks.
 * @param[out] list  nullptr for a port without devices
 */
int can_proprietary_conf_get_port_config(device_config **list, int portId);

/** One device with transactions, frames and blocks, into a zeroed or read record. */
int can_proprietary_conf_get_device_config(sqlite3 *db, device_config *record, int deviceId);

/** Id, port and name of a device. */
int can_proprietary_conf_get_device_name_config(device_config *record, int deviceId);

/** One transaction with frames and blocks. A frame that cannot be read is -1, whatever the cause.
 */
int can_proprietary_conf_get_transaction_config(sqlite3 *db,
                                                transaction_config *record,
                                                int transactionId);

/** One frame with blocks. An absent frame leaves the record as it is and gives 0. */
int can_proprietary_conf_get_frame_config(sqlite3 *db, frame_config *record, int frameId);

/** Number of devices, cut to 8 bits. */
int can_proprietary_conf_get_device_num(uint8_t *count);

/** port_num; -1 (logged) when there is no port row. */
int can_proprietary_conf_get_overview_port_num(overview_info *info);

/** device_num and transaction_num of a port. */
int can_proprietary_conf_get_overview_config(overview_info *info, int portId);

/*
 * The operations above on a connection of the caller's, for a request that needs more than one of
 * them: to open the working copy costs more than to read it. Results and messages are theirs, and a
 * missing connection is a working copy that cannot be opened.
 */

/**
 * A connection that sees one state of the database until it is closed.
 * @return nullptr on failure (logged); close with can_proprietary_db_close()
 */
sqlite3 *conf_open_snapshot();

/** can_proprietary_conf_get_interface_config() */
int conf_read_interface(sqlite3 *db, interface_config *record, int portId);

/** can_proprietary_conf_get_interface_device_config() */
int conf_read_interface_devices(sqlite3 *db, device_config **list, int portId);

/** can_proprietary_conf_get_overview_port_num() */
int conf_count_ports(sqlite3 *db, overview_info *info);

/** can_proprietary_conf_get_overview_config() */
int conf_count_rows_of_port(sqlite3 *db, overview_info *info, int portId);

/**
 * Whether the working copy holds edits not yet applied or discarded.
 * @retval 0 @retval -1 NULL argument (logged) @retval -4 the time cannot be read
 */
int can_proprietary_conf_changed(int *changed);

#endif
