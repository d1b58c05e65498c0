#include "always.h"

#include <kt/rest.h>

#include <cstdlib>
#include <cstring>
#include <string>

/*
 * Any bytes as the body of an upload, taken apart as the configuration file's handler does it. The
 * body has a terminating zero and may hold others before it.
 */

namespace {

constexpr const char *untouched = "untouched";

void expect_sound_part(const mp_part &part, const std::string &body, const char *earliest) {
    const char *end = body.data() + body.size();
    KT_ALWAYS(part.data >= earliest && part.data <= end);
    KT_ALWAYS(part.length <= static_cast<size_t>(end - part.data));
    KT_ALWAYS(part.headers != nullptr && strlen(part.headers) <= REST_PART_HEADERS_MAX);
    KT_ALWAYS(body.find(part.headers) != std::string::npos);
    KT_ALWAYS(part.name == nullptr || strlen(part.name) <= strlen(part.headers));
    KT_ALWAYS(part.filename == nullptr || strlen(part.filename) <= strlen(part.headers));
}

/** Parts stand one behind the other, without a delimiter line inside. */
void expect_sound_parts(const mp_part *parts, const std::string &body, const std::string &mark) {
    const char *earliest = body.data();
    int count = 0;
    for (const mp_part *part = parts; part != nullptr; part = part->next) {
        expect_sound_part(*part, body, earliest);
        KT_ALWAYS(++count <= REST_PARTS_MAX);
        const std::string_view data(part->data, part->length);
        KT_ALWAYS(data.find("\n" + mark + "\n") == std::string_view::npos);
        KT_ALWAYS(data.find("\n" + mark + "--\n") == std::string_view::npos);
        earliest = part->data + part->length;
    }
}

void take_apart(const std::string &body, const char *boundary) {
    auto *const none = reinterpret_cast<mp_part *>(const_cast<char *>(untouched));
    mp_part *parts = none;
    const int result = mp_parse(&parts, boundary, strlen(boundary), body.c_str(), body.size());
    if (result != REST_OK) {
        KT_ALWAYS(result == REST_BAD_BODY || result == REST_TOO_LONG);
        KT_ALWAYS(parts == none);
        return;
    }
    expect_sound_parts(parts, body, std::string("--") + boundary);
    mp_free_all_parts(parts);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string body(reinterpret_cast<const char *>(data), size);
    char *boundary = nullptr;
    const int result = parse_boundary(&boundary, body.c_str());
    if (result != REST_OK) {
        KT_ALWAYS(result == REST_BAD_BODY && boundary == nullptr);
        take_apart(body, "b"); // as a client does whose boundary stands in a header
        return 0;
    }
    KT_ALWAYS(boundary != nullptr && strlen(boundary) >= 1 &&
              strlen(boundary) <= REST_BOUNDARY_MAX);
    take_apart(body, boundary);
    free(boundary);
    return 0;
}
