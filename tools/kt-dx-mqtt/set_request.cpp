#include "set_request.h"

#include "program/text.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace {

constexpr std::string_view blanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

/** @return where the first byte stands that is part of no printable character, or the size */
size_t first_unprintable(std::string_view text) {
    for (size_t at = 0; at < text.size();) {
        const size_t length = program::utf8_length(text.substr(at));
        const std::string_view character = text.substr(at, length);
        const bool blank = length == 1 && blanks.find(character[0]) != std::string_view::npos;
        if (length == 0 || (!blank && program::printable(character) != character)) {
            return at;
        }
        at += length;
    }
    return text.size();
}

/** What is left to read of a text of well-formed UTF-8. */
struct reader {
    std::string_view text;
    std::string error;

    void skip_blanks() {
        const size_t first = text.find_first_not_of(blanks);
        text.remove_prefix(first == std::string_view::npos ? text.size() : first);
    }
    bool take(char wanted) {
        skip_blanks();
        if (text.empty() || text.front() != wanted) {
            return false;
        }
        text.remove_prefix(1);
        return true;
    }
    bool fail(const char *reason) {
        error = reason;
        return false;
    }
};

constexpr char cut_off[] = "the JSON text is cut off";
constexpr char bad_escape[] = "a JSON string holds an escape that does not exist";

void append_utf8(std::string &out, uint32_t code) {
    const auto byte = [&out](uint32_t bits) { out += static_cast<char>(bits); };
    if (code < 0x80) {
        byte(code);
    } else if (code < 0x800) {
        byte(0xC0 | code >> 6);
        byte(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        byte(0xE0 | code >> 12);
        byte(0x80 | (code >> 6 & 0x3F));
        byte(0x80 | (code & 0x3F));
    } else {
        byte(0xF0 | code >> 18);
        byte(0x80 | (code >> 12 & 0x3F));
        byte(0x80 | (code >> 6 & 0x3F));
        byte(0x80 | (code & 0x3F));
    }
}

/** The four digits after a "\u". */
bool read_unit(reader &in, uint32_t &unit) {
    const char *digits = in.text.data();
    if (in.text.size() < 4 || std::from_chars(digits, digits + 4, unit, 16).ptr != digits + 4) {
        return in.fail(bad_escape);
    }
    in.text.remove_prefix(4);
    return true;
}

/** A character by its number; those above U+FFFF come as two halves. */
bool read_numbered(reader &in, std::string &out) {
    uint32_t code = 0;
    if (!read_unit(in, code)) {
        return false;
    }
    if (code >= 0xD800 && code < 0xDC00 && in.text.substr(0, 2) == "\\u") {
        uint32_t low = 0;
        in.text.remove_prefix(2);
        if (!read_unit(in, low)) {
            return false;
        }
        if (low < 0xDC00 || low > 0xDFFF) {
            return in.fail(bad_escape);
        }
        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
    }
    if (code == 0 || (code >= 0xD800 && code <= 0xDFFF)) {
        return in.fail(bad_escape);
    }
    append_utf8(out, code);
    return true;
}

bool read_escape(reader &in, std::string &out) {
    constexpr std::string_view letters = "\"\\/bfnrt";
    constexpr std::string_view meanings = "\"\\/\b\f\n\r\t";
    if (in.text.empty()) {
        return in.fail(cut_off);
    }
    const char letter = in.text.front();
    in.text.remove_prefix(1);
    if (letter == 'u') {
        return read_numbered(in, out);
    }
    const size_t index = letters.find(letter);
    if (index == std::string_view::npos) {
        return in.fail(bad_escape);
    }
    out += meanings[index];
    return true;
}

/** A string whose opening quote was taken. */
bool read_string(reader &in, std::string &out) {
    while (!in.text.empty()) {
        const char c = in.text.front();
        in.text.remove_prefix(1);
        if (c == '"') {
            return true;
        }
        if (c == '\n' || c == '\r' || c == '\t') {
            return in.fail("a JSON string holds a line end or a tab");
        }
        if (c != '\\') {
            out += c;
        } else if (!read_escape(in, out)) {
            return false;
        }
    }
    return in.fail(cut_off);
}

/** A number, true, false or null, as it stands. */
bool read_word(reader &in, std::string &out) {
    const size_t end = in.text.find_first_of(",}]: \t\r\n\"{[");
    out = in.text.substr(0, end);
    in.text.remove_prefix(out.size());
    return !out.empty() || in.fail(in.text.empty() ? cut_off : "a value is missing");
}

bool is_json_number(std::string_view text) {
    const auto take_digits = [&text] {
        const size_t count = std::min(text.find_first_not_of("0123456789"), text.size());
        text.remove_prefix(count);
        return count;
    };
    const auto take_one_of = [&text](std::string_view wanted) {
        const bool there = !text.empty() && wanted.find(text.front()) != std::string_view::npos;
        text.remove_prefix(there ? 1 : 0);
        return there;
    };
    (void)take_one_of("-"); // may stand there
    if (!take_one_of("0") && take_digits() == 0) {
        return false;
    }
    if (take_one_of(".") && take_digits() == 0) {
        return false;
    }
    if (take_one_of("eE")) {
        (void)take_one_of("+-"); // may stand there
        if (take_digits() == 0) {
            return false;
        }
    }
    return text.empty();
}

bool is_json_word(std::string_view text) {
    return text == "true" || text == "false" || text == "null" || is_json_number(text);
}

struct scalar {
    std::string text; // of a string: without quotes and escapes
    bool quoted = false;
};

bool read_scalar(reader &in, scalar &out) {
    in.skip_blanks();
    if (!in.text.empty() && (in.text.front() == '{' || in.text.front() == '[')) {
        return in.fail("a member must be a string or a number, not an object or a list");
    }
    out.quoted = in.take('"');
    if (out.quoted) {
        return read_string(in, out.text);
    }
    return read_word(in, out.text) &&
           (is_json_word(out.text) || in.fail("a value is neither a JSON string nor a number"));
}

bool take_id(reader &in, const scalar &id, set_request &request) {
    if (!id.quoted && !is_json_number(id.text)) {
        return in.fail("\"id\" must be a string or a number");
    }
    if (id.text.size() > set_id_max_bytes) {
        return in.fail("\"id\" has more than 128 bytes");
    }
    if (!request.id.empty()) {
        return in.fail("\"id\" stands there twice");
    }
    request.id = id.quoted ? program::json_string(id.text) : id.text;
    return true;
}

bool read_member(reader &in, set_request &request, bool &has_value) {
    std::string name;
    scalar value;
    if (!in.take('"')) {
        return in.fail(in.text.empty() ? cut_off : "a member name is missing");
    }
    if (!read_string(in, name)) {
        return false;
    }
    if (!in.take(':')) {
        return in.fail(in.text.empty() ? cut_off : "a \":\" is missing");
    }
    if (!read_scalar(in, value)) {
        return false;
    }
    if (name == "id") {
        return take_id(in, value, request);
    }
    if (name != "value") {
        return in.fail("only \"value\" and \"id\" may stand in a set message");
    }
    if (has_value) {
        return in.fail("\"value\" stands there twice");
    }
    has_value = true;
    request.value = value.text;
    return true;
}

/** An object whose opening brace was taken. */
bool read_object(reader &in, set_request &request) {
    bool has_value = false;
    if (!in.take('}')) {
        do {
            if (!read_member(in, request, has_value)) {
                return false;
            }
        } while (in.take(','));
        if (!in.take('}')) {
            return in.fail(in.text.empty() ? cut_off : "a \",\" or \"}\" is missing");
        }
    }
    return has_value || in.fail("\"value\" is missing");
}

bool read_payload(reader &in, set_request &request) {
    if (in.take('{')) {
        return read_object(in, request);
    }
    if (in.take('"')) {
        return read_string(in, request.value);
    }
    if (in.text.front() == '[') {
        return in.fail("a list cannot be written");
    }
    request.value = in.text;
    in.text = {};
    return true;
}

} // namespace

bool parse_set_request(std::string_view payload, set_request &request, std::string &error) {
    request = {};
    if (payload.size() > set_payload_max_bytes) {
        error = "the message has more than 1024 bytes";
        return false;
    }
    reader in{trimmed(payload), {}};
    if (in.text.empty()) {
        error = "the message is empty";
        return false;
    }
    if (first_unprintable(in.text) != in.text.size()) {
        error = "the message holds bytes that are no printable text in UTF-8";
        return false;
    }
    bool good = read_payload(in, request);
    in.skip_blanks();
    if (good && !in.text.empty()) {
        good = in.fail("something follows the JSON text");
    }
    error = in.error;
    return good;
}
