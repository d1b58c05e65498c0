#ifndef KT_REST_REQUEST_H
#define KT_REST_REQUEST_H

#include "rest/response.h"

#include <parson.h>

#include <cstdint>
#include <sqlite3.h>

/*
 * What handlers share on the way in and on the way out. Any thread.
 *
 * What takes a function logs under that name and the caller's line.
 */

/**
 * Take the numeric id behind a resource word, as in "/CAN-proprietary/device/7?x=1"; what follows
 * the number is ignored, a sign is not.
 * @retval 0 @retval 1 missing argument, no number there, or a word beyond the URL limit (logged)
 */
int can_proprietary_get_id_from_path(const char *uri, const char *resource, int32_t *id);

/** A query parameter as a number, 0 for text that is none. @retval 0 @retval -1 absent (logged) */
int get_query_number(const char *function,
                     const char *uri,
                     const char *name,
                     int *number,
                     int line = __builtin_LINE());

/** "invalid uri" and -1 for a missing URI. */
int check_uri(const char *function, const char *uri, int line = __builtin_LINE());

/** "invalid input_data" and -1 for a missing body. */
int check_body(const char *function, const char *body, int line = __builtin_LINE());

/** Create the output object. @retval 0 @retval -4 (logged) */
int init_output(const char *function, json_ptr *output, int line = __builtin_LINE());

/** Write the answer and give the handler's status. */
int answer(int result, const json_ptr &output, rest_method method);

/**
 * A request's change of the working copy: one SQL transaction on one connection, rolled back unless
 * it is committed.
 */
class change {
public:
    change() = default;
    change(const change &) = delete;
    change &operator=(const change &) = delete;
    ~change();

    /**
     * Open and begin.
     * @retval  0
     * @retval -1  the working copy cannot be opened (logged)
     * @retval -8  the transaction cannot begin (logged)
     */
    int begin(const char *function, int line = __builtin_LINE());

    /** Open without a transaction: every statement counts at once. */
    int open(const char *function, int line = __builtin_LINE());

    /** @retval 0 @retval -8 the commit failed and changed nothing (logged) */
    int commit();

    [[nodiscard]] sqlite3 *db() const { return db_; }

    /** For operations that may close the connection themselves. */
    [[nodiscard]] sqlite3 **handle() { return &db_; }

private:
    sqlite3 *db_ = nullptr;
};

#endif
