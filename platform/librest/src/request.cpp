#include "request.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <strings.h>

namespace {

constexpr size_t first_room_bytes = 4096;
constexpr size_t swallow_max_bytes = size_t{2} * REST_BODY_MAX;

// "http://host:port/path" becomes "/path"; proxies send it so.
void split_target(rest_request &request) {
    request.uri = request.target;
    for (const std::string_view scheme : {"http://", "https://"}) {
        if (strncasecmp(request.target, scheme.data(), scheme.size()) == 0) {
            const char *host = request.target + scheme.size();
            const size_t length = strcspn(host, "/?#");
            request.authority = {host, length};
            request.uri = host + length;
        }
    }
}

// 0, or the HTTP status that says why there is no room for that many bytes.
int make_room(rest_request &request, size_t &bodies_bytes, size_t bytes) {
    if (bytes > REST_BODY_MAX) {
        return 413;
    }
    if (bytes <= request.body_room) {
        return 0;
    }
    const size_t wanted = std::max({bytes, request.body_room * 2, first_room_bytes});
    const size_t room = std::min<size_t>(wanted, REST_BODY_MAX);
    if (room > small_body_bytes && bodies_bytes - request.body_room + room > REST_BODIES_MAX) {
        return 503;
    }
    auto *body = static_cast<char *>(realloc(request.body, room + 1)); // a zero ends it
    if (!body) {
        return 503;
    }
    bodies_bytes += room - request.body_room;
    request.body = body;
    request.body_room = room;
    return 0;
}

} // namespace

rest_request *request_new(const char *target) {
    auto *request = new (std::nothrow) rest_request;
    if (!request) {
        return nullptr;
    }
    request->target = strdup(target);
    if (!request->target) {
        delete request;
        return nullptr;
    }
    split_target(*request);
    return request;
}

void request_drop_body(rest_request &request, size_t &bodies_bytes) {
    free(request.body);
    bodies_bytes -= request.body_room;
    request.body = nullptr;
    request.body_room = 0;
    request.body_length = 0;
}

void request_free(rest_request *request, size_t &bodies_bytes) {
    if (request) {
        request_drop_body(*request, bodies_bytes);
        free(request->target);
        delete request;
    }
}

int request_take(rest_request &request, size_t &bodies_bytes, const char *data, size_t length) {
    request.received += length;
    if (request.refusal == 0) {
        request.refusal = make_room(request, bodies_bytes, request.body_length + length);
    }
    if (request.refusal != 0) {
        request_drop_body(request, bodies_bytes);
        return request.received <= swallow_max_bytes ? 0 : -1;
    }
    memcpy(request.body + request.body_length, data, length);
    request.body_length += length;
    request.body[request.body_length] = '\0';
    return 0;
}
