#ifndef KT_REST_ANSWER_H
#define KT_REST_ANSWER_H

#include <kt/rest.h>

#include <microhttpd.h>

/** What a handler has written. */
struct rest_answer {
    char *data = nullptr; // owned
    size_t length = 0;
    bool is_written = false;
    char download_name[REST_DOWNLOAD_NAME_MAX + 1] = ""; // empty: JSON

    rest_answer() = default;
    rest_answer(const rest_answer &) = delete;
    rest_answer &operator=(const rest_answer &) = delete;
    ~rest_answer();
};

/** Run a handler, whose writing goes to answer; its HTTP status, 500 for what is none. */
int answer_run(rest_callback callback,
               const char *uri,
               const char *body,
               size_t body_length,
               rest_answer &answer);

/** Whether this thread is running a handler. */
bool answer_in_handler();

/** Send what a handler wrote; takes the data. MHD_NO: the connection has to go. */
enum MHD_Result answer_send(MHD_Connection *connection, int status, rest_answer &answer);

/** Send an error of our own. @param methods  for 405: bit n stands for rest_method n */
enum MHD_Result answer_send_error(MHD_Connection *connection, int status, unsigned methods);

#endif
