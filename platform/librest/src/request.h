#ifndef KT_REST_REQUEST_H
#define KT_REST_REQUEST_H

#include <kt/rest.h>

#include <string_view>

/** Up to this room a body is taken however much of REST_BODIES_MAX the others use. */
constexpr size_t small_body_bytes = size_t{64} * 1024;

/** One request under way. Server thread only. */
struct rest_request {
    char *target = nullptr;     // as sent; owned
    const char *uri = nullptr;  // path and query, inside target
    std::string_view authority; // of a target with scheme and host, inside target
    char *body = nullptr;       // owned, terminated
    size_t body_length = 0;
    size_t body_room = 0; // bytes it can hold
    size_t received = 0;  // bytes of the body, stored or not
    int refusal = 0;      // HTTP status, decided before the body is complete; 0: none
    unsigned methods = 0; // of the path, for a 405
    rest_callback callback = nullptr;
    bool is_judged = false; // its head has been looked at
    bool is_answered = false;
    bool is_leaving = false; // with the answer of a handler
};

/** nullptr when memory runs out. */
rest_request *request_new(const char *target);

/** Release a request and give the room of its body back. */
void request_free(rest_request *request, size_t &bodies_bytes);

/**
 * Take a piece of the body. A request that is refused, here for its length or for lack of memory,
 * swallows the rest, so that the client gets to reading the answer.
 *
 * @param[in,out] bodies_bytes  memory that all bodies take
 * @retval  0  taken
 * @retval -1  refused, and the client does not stop sending
 */
int request_take(rest_request &request, size_t &bodies_bytes, const char *data, size_t length);

/** Release the body and give its room back. */
void request_drop_body(rest_request &request, size_t &bodies_bytes);

#endif
