#include <kt/rest.h>

#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace std::string_literals;

struct copy_of_part {
    std::string name, filename, headers, data;
    bool operator==(const copy_of_part &) const = default;
};

std::string text_or(const char *text) {
    return text ? text : "(null)";
}

struct parsed {
    int result;
    std::vector<copy_of_part> parts;
};

// The body stands at the very end of an allocation, so that reading on is noticed.
parsed parse(const std::string &body, const std::string &boundary = "X") {
    std::vector<char> exact(body.begin(), body.end());
    mp_part *const untouched = reinterpret_cast<mp_part *>(&exact);
    mp_part *list = untouched;
    const char *bytes = exact.empty() ? "" : exact.data();
    parsed out = {mp_parse(&list, boundary.data(), boundary.size(), bytes, exact.size()), {}};
    if (out.result != REST_OK) {
        EXPECT_EQ(list, untouched);
        return out;
    }
    for (const mp_part *part = list; part; part = part->next) {
        EXPECT_TRUE(part->data >= bytes && part->data + part->length <= bytes + exact.size());
        out.parts.push_back({text_or(part->name),
                             text_or(part->filename),
                             part->headers,
                             std::string(part->data, part->length)});
    }
    mp_free_all_parts(list);
    return out;
}

std::string data_of(const std::string &body) {
    const parsed out = parse(body);
    return out.result == REST_OK && out.parts.size() == 1 ? out.parts[0].data
                                                          : "code " + std::to_string(out.result);
}

copy_of_part part_with(const std::string &disposition) {
    const parsed out = parse("--X\r\n" + disposition + "\r\n\r\ndata\r\n--X--\r\n");
    return out.parts.size() == 1 ? out.parts[0] : copy_of_part();
}

std::string boundary_of(const std::string &body) {
    char *boundary = nullptr;
    const int result = parse_boundary(&boundary, body.c_str());
    const std::string text = result == REST_OK ? boundary : "code " + std::to_string(result);
    EXPECT_EQ(boundary != nullptr, result == REST_OK);
    free(boundary);
    return text;
}

TEST(rest_multipart, boundary_is_the_first_line) {
    EXPECT_EQ(boundary_of("--X\r\nrest"), "X");
    EXPECT_EQ(boundary_of("--X\n"), "X");
    EXPECT_EQ(boundary_of("------a'()+_,-./:=?\r\n"), "----a'()+_,-./:=?");
    EXPECT_EQ(boundary_of("--X \t\r\n"), "X");
    EXPECT_EQ(boundary_of("--" + std::string(70, 'b') + "\r\n"), std::string(70, 'b'));
}

TEST(rest_multipart, first_line_that_is_no_boundary_is_refused) {
    for (const std::string &body : {""s,
                                    "-"s,
                                    "--"s,
                                    "--\r\n"s,
                                    "--X"s,
                                    "-X\r\n"s,
                                    "X\r\n"s,
                                    "\r\n--X\r\n"s,
                                    "{\"a\":1}"s,
                                    "{\n}"s,
                                    "--a b\r\n"s,
                                    "--a\x80\r\n"s,
                                    "--a\x01\r\n"s,
                                    "--" + std::string(71, 'b') + "\r\n"}) {
        EXPECT_EQ(boundary_of(body), "code -11") << body;
    }
}

TEST(rest_multipart, null_arguments_are_refused) {
    char *boundary = nullptr;
    mp_part *parts = nullptr;
    EXPECT_EQ(parse_boundary(nullptr, "--X\r\n"), REST_BAD_ARGUMENT);
    EXPECT_EQ(parse_boundary(&boundary, nullptr), REST_BAD_ARGUMENT);
    EXPECT_EQ(mp_parse(nullptr, "X", 1, "", 0), REST_BAD_ARGUMENT);
    EXPECT_EQ(mp_parse(&parts, nullptr, 1, "", 0), REST_BAD_ARGUMENT);
    EXPECT_EQ(mp_parse(&parts, "X", 0, "", 0), REST_BAD_ARGUMENT);
    EXPECT_EQ(mp_parse(&parts, "X", 1, nullptr, 0), REST_BAD_ARGUMENT);
    EXPECT_EQ(parse("", std::string(71, 'b')).result, REST_BAD_ARGUMENT);
    EXPECT_EQ(parse("", "a\0b"s).result, REST_BAD_ARGUMENT);
    mp_free_all_parts(nullptr);
}

TEST(rest_multipart, upload_of_a_file_is_one_part) {
    const parsed out = parse("--X\r\n"
                             "Content-Disposition: form-data; name=\"file\"; filename=\"a.csv\"\r\n"
                             "Content-Type: text/csv\r\n"
                             "\r\n"
                             "version: 1.0.0\r\n[device]\r\n"
                             "\r\n--X--\r\n");
    ASSERT_EQ(out.result, REST_OK);
    const copy_of_part expected = {
        "file",
        "a.csv",
        "Content-Disposition: form-data; name=\"file\"; filename=\"a.csv\"\r\n"
        "Content-Type: text/csv\r\n",
        "version: 1.0.0\r\n[device]\r\n"};
    EXPECT_EQ(out.parts, std::vector{expected});
}

TEST(rest_multipart, parts_keep_their_order) {
    const parsed out = parse("--X\r\nContent-Disposition: form-data; name=a\r\n\r\n1\r\n"
                             "--X\r\nContent-Disposition: form-data; name=b\r\n\r\n\r\n"
                             "--X\r\n\r\n3\r\n--X--");
    ASSERT_EQ(out.parts.size(), 3u);
    EXPECT_EQ(out.parts[0].name + "=" + out.parts[0].data, "a=1");
    EXPECT_EQ(out.parts[1].name + "=" + out.parts[1].data, "b=");
    EXPECT_EQ(out.parts[2], (copy_of_part{"(null)", "(null)", "", "3"}));
}

TEST(rest_multipart, lines_may_end_with_line_feeds_alone) {
    EXPECT_EQ(data_of("--X\nA: b\n\nline\n--X--\n"), "line");
    EXPECT_EQ(data_of("--X\nA: b\n\nline\r\n\r\n--X--\n"), "line\r\n");
}

TEST(rest_multipart, preamble_and_epilogue_are_skipped) {
    EXPECT_EQ(data_of("hello\r\n--X\r\n\r\nd\r\n--X--\r\nbye\r\n--X\r\n"), "d");
    EXPECT_EQ(data_of("\n--X \t\r\n\r\nd\r\n--X-- \t\r\n"), "d");
}

TEST(rest_multipart, data_may_hold_anything_but_a_delimiter_line) {
    for (const std::string &data : {""s,
                                    "\r\n"s,
                                    "\n"s,
                                    "\r"s,
                                    " --X"s,
                                    "a--X--"s,
                                    "a--X--\r\nb"s,
                                    "\r\n--XY\r\n"s,
                                    "\r\n--X-\r\n"s,
                                    "\r\n--X--y\r\n"s,
                                    "\r\n-X\r\n"s,
                                    "\0\0\x01\xff"s,
                                    "\r\n--\r\n"s,
                                    "\r\n\r\n"s}) {
        EXPECT_EQ(data_of("--X\r\nA: b\r\n\r\n" + data + "\r\n--X--"), data);
    }
}

TEST(rest_multipart, empty_part_needs_but_one_line_break) {
    EXPECT_EQ(data_of("--X\r\n\r\n--X--"), "");
    EXPECT_EQ(data_of("--X\r\nA: b\r\n\r\n--X--"), "");
}

TEST(rest_multipart, no_parts_is_no_error) {
    const parsed out = parse("--X--\r\n");
    EXPECT_EQ(out.result, REST_OK);
    EXPECT_TRUE(out.parts.empty());
}

TEST(rest_multipart, every_cut_of_a_body_is_refused) {
    const std::string body = "--X\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n"
                             "--X\r\n\r\n2\r\n--X--";
    EXPECT_EQ(parse(body).parts.size(), 2u);
    for (size_t length = 0; length < body.size(); ++length) {
        EXPECT_EQ(parse(body.substr(0, length)).result, REST_BAD_BODY) << length;
    }
}

TEST(rest_multipart, part_without_an_empty_line_is_refused) {
    EXPECT_EQ(parse("--X\r\n--X--").result, REST_BAD_BODY);
    EXPECT_EQ(parse("--X\r\nA: b\r\n--X--").result, REST_BAD_BODY);
    EXPECT_EQ(parse("--X\r\nA: b\r\n--X\r\n\r\nd\r\n--X--").result, REST_BAD_BODY);
}

TEST(rest_multipart, zero_byte_in_headers_is_refused) {
    EXPECT_EQ(parse("--X\r\nA: \0b\r\n\r\nd\r\n--X--"s).result, REST_BAD_BODY);
}

TEST(rest_multipart, number_of_parts_is_bounded) {
    std::string body;
    for (int i = 0; i < REST_PARTS_MAX; ++i) {
        body += "--X\r\n\r\nd\r\n";
    }
    EXPECT_EQ(parse(body + "--X--").parts.size(), size_t{REST_PARTS_MAX});
    EXPECT_EQ(parse(body + "--X\r\n\r\nd\r\n--X--").result, REST_TOO_LONG);
}

TEST(rest_multipart, length_of_headers_is_bounded) {
    const std::string start = "--X\r\nA: ";
    const std::string end = "\r\n\r\nd\r\n--X--";
    const std::string fits(REST_PART_HEADERS_MAX - strlen("A: \r\n"), 'b');
    EXPECT_EQ(data_of(start + fits + end), "d");
    EXPECT_EQ(parse(start + fits + "b" + end).result, REST_TOO_LONG);
    EXPECT_EQ(parse(start + std::string(1000000, 'b') + end).result, REST_TOO_LONG);
}

TEST(rest_multipart, names_are_read_with_and_without_quotes) {
    const auto names = [](const char *disposition) {
        const copy_of_part part = part_with(disposition);
        return part.name + "," + part.filename;
    };
    EXPECT_EQ(names("content-disposition:form-data;NAME=a;FileName=b"), "a,b");
    EXPECT_EQ(names("Content-Disposition: form-data; name=\"a;b=c\"; filename=\"x \\\"y\\\" z\""),
              "a;b=c,x \"y\" z");
    EXPECT_EQ(names("Content-Disposition: form-data; filename=\"C:\\dir\\f.csv\"; name=\"\\\\\""),
              "\\,C:\\dir\\f.csv");
    EXPECT_EQ(names("Content-Disposition: form-data; name=\"\"; name=second"), ",(null)");
    EXPECT_EQ(names("Content-Disposition: form-data; filename*=UTF-8''x; name=a ; y"), "a,(null)");
    EXPECT_EQ(names("Content-Disposition: form-data; xname=a; name; =; name=\"open"),
              "\"open,(null)");
    EXPECT_EQ(names("Content-Disposition: form-data"), "(null),(null)");
    EXPECT_EQ(names("Content-Disposition:"), "(null),(null)");
    EXPECT_EQ(names("Content-Disposition : form-data; name=a"), "(null),(null)");
    EXPECT_EQ(names("X: 1\r\nContent-Disposition: form-data; name=\"a\"\r\nY: 2"), "a,(null)");
    EXPECT_EQ(names("X: 1\nContent-Disposition: form-data; name=\"a\""), "a,(null)");
    EXPECT_EQ(names("Content-Disposition: form-data; name=\"../../etc\"; filename=\"\\"),
              "../../etc,\"\\");
}

// Pieces that mean something, glued together at random: nothing may be read outside the body, and
// what is accepted must lie inside it.
TEST(rest_multipart, any_bytes_are_survived) {
    const std::vector<std::string> pieces = {"--X",
                                             "--",
                                             "\r\n",
                                             "\n",
                                             "\r",
                                             "X",
                                             " ",
                                             "\0"s,
                                             "data",
                                             "Content-Disposition: form-data; name=",
                                             "\"",
                                             "\\",
                                             ";",
                                             "filename=",
                                             "=",
                                             "--X--",
                                             "\r\n--X\r\n",
                                             "\r\n\r\n",
                                             "\xff"};
    std::mt19937 random(20240229); // the same bodies in every run
    int accepted = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string body = "--X\r\n";
        for (auto count = random() % 24; count > 0; --count) {
            body += pieces[random() % pieces.size()];
        }
        accepted += parse(body).result == REST_OK;
        char *boundary = nullptr;
        if (parse_boundary(&boundary, body.c_str()) == REST_OK) {
            EXPECT_STREQ(boundary, "X");
        }
        free(boundary);
    }
    EXPECT_GT(accepted, 100);
}

// With a cost per byte of more than a few comparisons this would take minutes.
TEST(rest_multipart, time_grows_with_the_length_only) {
    constexpr size_t length = 1024 * 1024;
    const std::string boundary(REST_BOUNDARY_MAX, '-');
    for (const std::string &piece :
         {"-"s, "\n"s, "\n-"s, "\n--"s + boundary, "\n--"s + boundary + " "}) {
        std::string body;
        body.reserve(length);
        while (body.size() + piece.size() <= length) {
            body += piece;
        }
        mp_part *parts = nullptr;
        EXPECT_NE(mp_parse(&parts, boundary.data(), boundary.size(), body.data(), body.size()),
                  REST_OK);
        mp_free_all_parts(parts);
    }
}

} // namespace
