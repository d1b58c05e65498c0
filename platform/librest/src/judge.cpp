#include "judge.h"

#include "access.h"

#include <charconv>
#include <strings.h>

namespace {

struct head_field {
    const char *name;
    const char *request_head::*value;
};

constexpr head_field head_fields[] = {
    {"Host", &request_head::host},
    {"Origin", &request_head::origin},
    {"Authorization", &request_head::authorization},
    {"Content-Length", &request_head::content_length},
    {"Transfer-Encoding", &request_head::transfer_encoding},
    {"Expect", &request_head::expect},
};

MHD_Result collect(void *context, MHD_ValueKind /*kind*/, const char *name, const char *value) {
    auto *head = static_cast<request_head *>(context);
    for (const head_field &field : head_fields) {
        if (strcasecmp(name, field.name) == 0) {
            head->is_doubled = head->is_doubled || head->*field.value;
            head->*field.value = value ? value : "";
        }
    }
    return MHD_YES;
}

std::string_view text_or_empty(const char *text) {
    return text ? text : std::string_view();
}

// Whether everybody between the client and us sees the same body.
bool has_certain_end(const request_head &head) {
    if (head.is_doubled || (head.content_length && head.transfer_encoding)) {
        return false;
    }
    return !head.transfer_encoding || strcasecmp(head.transfer_encoding, "chunked") == 0;
}

int judge_client(const judge_rules &rules, const request_head &head, const rest_request &request) {
    if (!rules.token.empty()) {
        return bearer_is(text_or_empty(head.authorization), rules.token) ? 0 : 401;
    }
    const bool is_absolute = request.uri != request.target;
    const std::string_view host = is_absolute ? request.authority : text_or_empty(head.host);
    if (head.origin && !origin_is_host(head.origin, host)) {
        return 403;
    }
    // HTTP/1.0 knows no Host, and browsers always send it.
    const bool has_host = is_absolute || head.host;
    return has_host && rules.is_loopback && !host_is_local(host, rules.own_host) ? 403 : 0;
}

int judge_route(const judge_rules &rules, const char *method, rest_request &request) {
    std::string_view path = request.uri;
    path = path.substr(0, path.find('?'));
    if (!path.starts_with(rules.base)) {
        return 404;
    }
    path.remove_prefix(rules.base.size());
    const route_match match = routes_find(*rules.routes, path, method_code(method));
    request.callback = match.callback;
    request.methods = match.methods;
    return match.callback ? 0 : match.methods != 0 ? 405 : 404;
}

} // namespace

request_head read_head(MHD_Connection *connection) {
    request_head head;
    (void)MHD_get_connection_values(connection, MHD_HEADER_KIND, collect, &head); // counts them
    return head;
}

uint64_t announced_length(const request_head &head) {
    // libmicrohttpd has refused what is no number. Beyond 64 bits, one is as good as another.
    const std::string_view text = text_or_empty(head.content_length);
    uint64_t length = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), length);
    return result.ec == std::errc::result_out_of_range ? UINT64_MAX : length;
}

int judge(const judge_rules &rules,
          const request_head &head,
          const char *method,
          rest_request &request) {
    if (!has_certain_end(head)) {
        return 400;
    }
    const int client = judge_client(rules, head, request);
    if (client != 0) {
        return client;
    }
    const int route = judge_route(rules, method, request);
    if (route != 0) {
        return route;
    }
    return announced_length(head) > REST_BODY_MAX ? 413 : 0;
}
