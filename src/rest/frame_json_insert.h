#ifndef KT_REST_FRAME_JSON_INSERT_H
#define KT_REST_FRAME_JSON_INSERT_H

#include "config/model.h"

#include <parson.h>

#include <sqlite3.h>

/*
 * From "frameList" and "blockList" of a body to rows and records.
 *
 * The connection is the request's; it is nullptr afterwards when a write operation had to close it.
 * Result codes of rest/response.h, logged. On success the owner holds the new list in body order;
 * on failure it holds none, and the rows inserted so far wait for the caller's rollback.
 *
 * THREAD SAFETY: no state.
 */

int can_proprietary_parse_array_frame_json_to_insert_config(sqlite3 **db,
                                                            const JSON_Object *object,
                                                            transaction_config *transaction);

/**
 * Deletes the transaction's frames first. Takes the id at full width, so that one no record could
 * hold is not found rather than cut to another transaction's.
 */
int can_proprietary_parse_array_frame_json_to_replace_config(sqlite3 **db,
                                                             const JSON_Object *object,
                                                             transaction_config *transaction,
                                                             int transactionId);

int can_proprietary_parse_array_block_json_to_insert_config(sqlite3 **db,
                                                            const JSON_Object *object,
                                                            frame_config *frame);

/** A fresh transaction's fields before its body is parsed. */
void set_transaction_defaults(transaction_config *transaction);

#endif
