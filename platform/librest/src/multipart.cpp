#include "guards.h"

#include <kt/rest.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <strings.h>

namespace {

using part_list = std::unique_ptr<mp_part, call_on_delete<mp_free_all_parts>>;

/** "--" and the boundary: what delimiter lines begin with. */
struct delimiter_mark {
    char text[2 + REST_BOUNDARY_MAX];
    size_t length;
};

/** A delimiter line in the body. */
struct delimiter {
    size_t content_end; // where the content before it ends: in front of the line break
    size_t begin;
    size_t end; // behind its line break
    bool closing;
};

bool is_boundary(std::string_view text) {
    if (text.empty() || text.size() > REST_BOUNDARY_MAX) {
        return false;
    }
    for (const char c : text) {
        if (c <= ' ' || c > '~') {
            return false;
        }
    }
    return true;
}

size_t line_break_at(std::string_view text, size_t at) {
    if (text.compare(at, 2, "\r\n") == 0) {
        return 2;
    }
    return text.compare(at, 1, "\n") == 0 ? 1 : 0;
}

// Whether the line that begins there, with the mark, is a delimiter.
bool read_delimiter(std::string_view body, size_t begin, size_t mark_length, delimiter &out) {
    size_t at = begin + mark_length;
    const bool closing = body.compare(at, 2, "--") == 0;
    at += closing ? 2 : 0;
    at = std::min(body.find_first_not_of(" \t", at), body.size());
    const size_t line_break = line_break_at(body, at);
    if (line_break == 0 && !(closing && at == body.size())) {
        return false;
    }
    const size_t before = begin > 1 && body[begin - 2] == '\r' ? 2 : 1;
    out = {begin > 0 ? begin - before : 0, begin, at + line_break, closing};
    return true;
}

// Line by line from the beginning of one: the time it takes grows with the length alone, whatever
// the bytes are.
bool find_delimiter(std::string_view body,
                    size_t line,
                    const delimiter_mark &mark,
                    delimiter &out) {
    const std::string_view text(mark.text, mark.length);
    for (;;) {
        if (body.compare(line, text.size(), text) == 0 &&
            read_delimiter(body, line, mark.length, out)) {
            return true;
        }
        const size_t end = body.find('\n', line);
        if (end == body.npos) {
            return false;
        }
        line = end + 1;
    }
}

// Length of the header lines at the beginning of a part; *skip includes the empty line.
int measure_headers(std::string_view part, size_t &length, size_t &skip) {
    for (size_t line = 0; line <= REST_PART_HEADERS_MAX;) {
        const size_t line_break = line_break_at(part, line);
        if (line_break > 0) {
            length = line;
            skip = line + line_break;
            return memchr(part.data(), 0, length) ? REST_BAD_BODY : REST_OK;
        }
        const size_t end = part.find('\n', line);
        if (end == part.npos) {
            return REST_BAD_BODY;
        }
        line = end + 1;
    }
    return REST_TOO_LONG;
}

char *copy_text(std::string_view text) {
    auto *copy = static_cast<char *>(malloc(text.size() + 1));
    if (copy) {
        (void)text.copy(copy, text.size()); // the room is right
        copy[text.size()] = '\0';
    }
    return copy;
}

// Browsers escape quotes their own way and send paths with plain backslashes.
void unescape(char *text) {
    char *to = text;
    for (const char *from = text; *from; ++from) {
        if (from[0] == '\\' && (from[1] == '"' || from[1] == '\\')) {
            ++from;
        }
        *to++ = *from;
    }
    *to = '\0';
}

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    const size_t last = text.find_last_not_of(" \t\r\n");
    return first == text.npos ? std::string_view() : text.substr(first, last - first + 1);
}

bool same_word(std::string_view text, std::string_view word) {
    return text.size() == word.size() && strncasecmp(text.data(), word.data(), word.size()) == 0;
}

// Length of a parameter's value; a quoted one includes its quotes and may hold semicolons.
size_t value_length(std::string_view text) {
    if (!text.starts_with('"')) {
        return std::min(text.find(';'), text.size());
    }
    for (size_t i = 1; i < text.size(); ++i) {
        if (text[i] == '"') {
            return i + 1;
        }
        i += text[i] == '\\' && i + 1 < text.size() && (text[i + 1] == '"' || text[i + 1] == '\\');
    }
    return text.size();
}

// The first parameter of that name becomes the text; the others do not count.
int take_parameter(std::string_view value, char **text) {
    if (*text) {
        return REST_OK;
    }
    const bool quoted = value.size() > 1 && value.starts_with('"') && value.ends_with('"');
    *text = copy_text(quoted ? value.substr(1, value.size() - 2) : trimmed(value));
    if (!*text) {
        return REST_NO_MEMORY;
    }
    if (quoted) {
        unescape(*text);
    }
    return REST_OK;
}

// disposition: 'form-data; name="..."; filename="..."'
int read_disposition(mp_part &part, std::string_view disposition) {
    while (!disposition.empty()) {
        // The next parameter stands behind a semicolon; nothing before it matters any more.
        const size_t semicolon = disposition.find(';');
        if (semicolon == disposition.npos) {
            break;
        }
        disposition.remove_prefix(semicolon + 1);
        const size_t equals = disposition.find_first_of("=;");
        if (equals == disposition.npos || disposition[equals] == ';') {
            continue;
        }
        const std::string_view key = trimmed(disposition.substr(0, equals));
        disposition.remove_prefix(equals + 1);
        const size_t length = value_length(disposition);
        char **text = same_word(key, "name")       ? &part.name
                      : same_word(key, "filename") ? &part.filename
                                                   : nullptr;
        if (text && take_parameter(disposition.substr(0, length), text) != REST_OK) {
            return REST_NO_MEMORY;
        }
        disposition.remove_prefix(length);
    }
    return REST_OK;
}

int read_headers(mp_part &part, std::string_view headers) {
    part.headers = copy_text(headers);
    if (!part.headers) {
        return REST_NO_MEMORY;
    }
    while (!headers.empty()) {
        const size_t end = std::min(headers.find('\n'), headers.size() - 1);
        const std::string_view line = headers.substr(0, end + 1);
        const size_t colon = line.find(':');
        if (colon != line.npos && same_word(line.substr(0, colon), "Content-Disposition")) {
            return read_disposition(part, trimmed(line.substr(colon + 1)));
        }
        headers.remove_prefix(end + 1);
    }
    return REST_OK;
}

// The part between two delimiters.
int read_part(std::string_view body, size_t begin, const delimiter &next, part_list &out) {
    size_t header_length = 0;
    size_t skip = 0;
    const std::string_view text = body.substr(begin, next.begin - begin);
    const int result = measure_headers(text, header_length, skip);
    if (result != REST_OK) {
        return result;
    }
    part_list part(static_cast<mp_part *>(calloc(1, sizeof(mp_part))));
    if (!part || read_headers(*part, text.substr(0, header_length)) != REST_OK) {
        return REST_NO_MEMORY;
    }
    // The empty line behind the headers may be the line break that belongs to the delimiter.
    part->data = body.data() + begin + skip;
    part->length = std::max(next.content_end, begin + skip) - (begin + skip);
    out = std::move(part);
    return REST_OK;
}

int split(std::string_view body, const delimiter_mark &mark, part_list &out) {
    part_list first;
    mp_part **end = nullptr;
    delimiter here;
    if (!find_delimiter(body, 0, mark, here)) {
        return REST_BAD_BODY;
    }
    for (int count = 0; !here.closing; ++count) {
        delimiter next;
        part_list part;
        if (count == REST_PARTS_MAX) {
            return REST_TOO_LONG;
        }
        if (!find_delimiter(body, here.end, mark, next)) {
            return REST_BAD_BODY;
        }
        const int result = read_part(body, here.end, next, part);
        if (result != REST_OK) {
            return result;
        }
        mp_part *added = part.release();
        if (end) {
            *end = added;
        } else {
            first.reset(added);
        }
        end = &added->next;
        here = next;
    }
    out = std::move(first);
    return REST_OK;
}

} // namespace

int parse_boundary(char **boundary, const char *body) {
    if (!boundary || !body) {
        return REST_BAD_ARGUMENT;
    }
    const char *end = strchr(body, '\n');
    if (!end || strncmp(body, "--", 2) != 0) {
        return REST_BAD_BODY;
    }
    std::string_view line(body, static_cast<size_t>(end - body));
    line = line.substr(0, line.find_last_not_of(" \t\r") + 1);
    if (line.size() < 2 || !is_boundary(line.substr(2))) {
        return REST_BAD_BODY;
    }
    char *text = copy_text(line.substr(2));
    if (!text) {
        return REST_NO_MEMORY;
    }
    *boundary = text;
    return REST_OK;
}

int mp_parse(struct mp_part **parts,
             const char *boundary,
             size_t boundary_length,
             const char *body,
             size_t body_length) {
    if (!parts || !boundary || !body || !is_boundary({boundary, boundary_length})) {
        return REST_BAD_ARGUMENT;
    }
    delimiter_mark mark = {"--", boundary_length + 2};
    memcpy(mark.text + 2, boundary, boundary_length);
    part_list found;
    const int result = split({body, body_length}, mark, found);
    if (result == REST_OK) {
        *parts = found.release();
    }
    return result;
}

void mp_free_all_parts(struct mp_part *parts) {
    while (parts) {
        mp_part *next = parts->next;
        free(parts->name);
        free(parts->filename);
        free(parts->headers);
        free(parts);
        parts = next;
    }
}
