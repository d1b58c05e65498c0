#include "answer.h"

#include "guards.h"
#include "report.h"
#include "routes.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

using response_ptr = std::unique_ptr<MHD_Response, call_on_delete<MHD_destroy_response>>;

thread_local rest_answer *current = nullptr; // of the handler that runs on this thread

struct error_text {
    int status;
    const char *message;
};

constexpr error_text error_texts[] = {
    {400, "Bad request"},
    {401, "Authorization required"},
    {403, "Host or origin not allowed"},
    {404, "No such path"},
    {405, "Method not allowed"},
    {413, "Request body too large"},
    {500, "Internal server error"},
    {503, "Server is busy"},
};

const char *message_of(int status) {
    for (const error_text &entry : error_texts) {
        if (entry.status == status) {
            return entry.message;
        }
    }
    return "Error";
}

bool may_have_body(int status) {
    return status != 204 && status != 304;
}

bool add_header(MHD_Response *response, const char *name, const char *value) {
    return MHD_add_response_header(response, name, value) == MHD_YES;
}

// Takes the data in every case.
response_ptr make_response(char *data, size_t length) {
    response_ptr response(MHD_create_response_from_buffer(length, data, MHD_RESPMEM_MUST_FREE));
    if (!response) {
        free(data);
        return nullptr;
    }
    // Configuration and diagnostics are of the moment, and never a page.
    if (!add_header(response.get(), "Cache-Control", "no-store") ||
        !add_header(response.get(), "X-Content-Type-Options", "nosniff")) {
        return nullptr;
    }
    return response;
}

bool add_disposition(MHD_Response *response, const char *name) {
    char text[sizeof "attachment; filename=\"\"" + size_t{2} * REST_DOWNLOAD_NAME_MAX];
    size_t length = static_cast<size_t>(snprintf(text, sizeof text, "attachment; filename=\""));
    for (const char *at = name; *at; ++at) {
        if (*at == '"' || *at == '\\') {
            text[length++] = '\\';
        }
        text[length++] = *at;
    }
    text[length++] = '"';
    text[length] = '\0';
    return add_header(response, "Content-Type", "text/csv") &&
           add_header(response, "Content-Disposition", text);
}

// @param download_name  of good length, empty for JSON
int put(const void *data, size_t length, std::string_view download_name) {
    auto *copy = static_cast<char *>(malloc(length > 0 ? length : 1));
    if (!copy) {
        return REST_NO_MEMORY;
    }
    if (length > 0) {
        memcpy(copy, data, length);
    }
    free(current->data);
    current->data = copy;
    current->length = length;
    current->is_written = true;
    current->download_name[download_name.copy(current->download_name, REST_DOWNLOAD_NAME_MAX)] =
        '\0';
    return REST_OK;
}

bool is_download_name(const char *name) {
    const size_t length = strnlen(name, REST_DOWNLOAD_NAME_MAX + 1);
    for (size_t i = 0; i < length; ++i) {
        if (name[i] < ' ' || name[i] > '~') {
            return false;
        }
    }
    return length > 0 && length <= REST_DOWNLOAD_NAME_MAX;
}

} // namespace

rest_answer::~rest_answer() {
    free(data);
}

bool answer_in_handler() {
    return current != nullptr;
}

int answer_run(rest_callback callback,
               const char *uri,
               const char *body,
               size_t body_length,
               rest_answer &answer) {
    int status = 500;
    current = &answer;
    try {
        status = callback(uri, body, body_length);
    } catch (...) {
        report("a handler ended with an exception");
        answer.is_written = false;
        status = 0;
    }
    current = nullptr;
    return status;
}

enum MHD_Result answer_send(MHD_Connection *connection, int status, rest_answer &answer) {
    if (status < 200 || status > 599) {
        return answer_send_error(connection, 500, 0);
    }
    const bool has_body = answer.is_written && may_have_body(status);
    char *data = has_body ? std::exchange(answer.data, nullptr) : nullptr;
    const response_ptr response = make_response(data, has_body ? answer.length : 0);
    const auto is_described = [&] {
        return answer.download_name[0] == '\0'
                   ? add_header(response.get(), "Content-Type", "application/json")
                   : add_disposition(response.get(), answer.download_name);
    };
    if (!response || (has_body && !is_described())) {
        return MHD_NO;
    }
    return MHD_queue_response(connection, static_cast<unsigned>(status), response.get());
}

enum MHD_Result answer_send_error(MHD_Connection *connection, int status, unsigned methods) {
    char *text = nullptr;
    const int length =
        asprintf(&text, R"({"error":{"code":%d,"message":"%s"}})", status, message_of(status));
    if (length < 0) {
        return MHD_NO;
    }
    const response_ptr response = make_response(text, static_cast<size_t>(length));
    if (!response || !add_header(response.get(), "Content-Type", "application/json") ||
        (status == 401 && !add_header(response.get(), "WWW-Authenticate", "Bearer")) ||
        (status == 405 && !add_header(response.get(), "Allow", format_allow(methods).text)) ||
        (status == 503 && !add_header(response.get(), "Retry-After", "1"))) {
        return MHD_NO;
    }
    return MHD_queue_response(connection, static_cast<unsigned>(status), response.get());
}

int rest_write(const char *text, size_t length) {
    if (!current) {
        return REST_NOT_IN_HANDLER;
    }
    return text || length == 0 ? put(text, length, "") : REST_BAD_ARGUMENT;
}

int rest_write_file(const char *download_name, const void *data, size_t length) {
    if (!current) {
        return REST_NOT_IN_HANDLER;
    }
    if (!download_name || !is_download_name(download_name) || (!data && length > 0)) {
        return REST_BAD_ARGUMENT;
    }
    return put(data, length, download_name);
}
