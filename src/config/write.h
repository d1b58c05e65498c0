#ifndef KT_CONFIG_WRITE_H
#define KT_CONFIG_WRITE_H

#include "config/model.h"

#include <cstdint>
#include <sqlite3.h>

/*
 * Single-row changes of the working copy.
 *
 * The caller opens the connection with can_proprietary_db_get(), begins with
 * can_proprietary_db_start_set_db(), calls operations and ends with
 * can_proprietary_db_end_set_db(). The existence checks and the CAN identifier check use a
 * connection of their own and see committed rows only.
 *
 * Names are embedded in the statements as they are; one that would leave its quotes fails the
 * statement and changes nothing. Ids are taken at full width.
 *
 * Results: 0; -1 absent row, duplicate name, failed statement, NULL argument (each logged); -7 out
 * of memory. An operation that takes a sqlite3 ** rolls back, closes the connection and sets it to
 * nullptr on the failures named at it; all others leave that to the caller.
 *
 * THREAD SAFETY: any thread; a connection serves one operation at a time.
 */

/** @retval 0 a row exists @retval -1 none, or not to be read @retval -7 */
int check_portId_exists(int portId);
int check_deviceId_exists(int deviceId);
int check_transactionId_exists(int transactionId);
int check_blockId_exists(int blockId);

/** Closes the connection when the UPDATE or its memory fails. */
int can_proprietary_conf_update_interface_config(sqlite3 **db,
                                                 const interface_config *config,
                                                 int portId);

/** Name and port. @param[out] deviceId key of the new row, untouched on failure */
int can_proprietary_conf_insert_device_config(sqlite3 *db,
                                              const device_config *config,
                                              uint8_t *deviceId);

/** The name. */
int can_proprietary_conf_update_device_config(sqlite3 *db,
                                              const device_config *config,
                                              int deviceId);

/** With its transactions, frames and blocks. */
int can_proprietary_conf_delete_device_config(sqlite3 *db, int deviceId);

/** @param[out] inserted its transactionId is set; may be the same record */
int can_proprietary_conf_insert_transaction_config(sqlite3 *db,
                                                   const transaction_config *config,
                                                   transaction_config *inserted);

int can_proprietary_conf_update_transaction_config(sqlite3 *db,
                                                   const transaction_config *config,
                                                   int transactionId);

/** With its frames and blocks. */
int can_proprietary_conf_delete_transaction_config(sqlite3 *db, int transactionId);

/** @param[out] inserted its frameId is set; may be the same record */
int can_proprietary_conf_insert_frame_config(sqlite3 *db,
                                             const frame_config *config,
                                             frame_config *inserted);

/** All frames of a transaction with their blocks. Closes the connection when the DELETE fails. */
int can_proprietary_conf_delete_frame_config(sqlite3 **db, int transactionId);

/** Closes the connection when its memory fails. @param[out] inserted its blockId is set */
int can_proprietary_conf_insert_tag_block_config(sqlite3 **db,
                                                 const block_config *block,
                                                 tag_block_config *inserted);

/** @param[out] inserted its blockId is set */
int can_proprietary_conf_insert_constant_block_config(sqlite3 *db,
                                                      const block_config *block,
                                                      constant_block_config *inserted);

/**
 * Whether two different frames claim one received CAN identifier: two consumed frames, or a
 * consumed and a response frame. Two response frames may share one, sent frames are not looked at.
 * @retval 0 no conflict @retval -1 conflict or failure (logged) @retval -7 out of memory
 */
int can_proprietary_conf_check_canId_duplicate();

#endif
