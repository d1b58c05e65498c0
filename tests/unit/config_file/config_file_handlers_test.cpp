#include "allocation_fault.h"
#include "config/config_fixture.h"
#include "full_disk.h"
#include "json_fault.h"
#include "multipart_fault.h"
#include "rest/fake_rest.h"
#include "rest/handlers.h"

namespace {

constexpr const char *file_text =
    "[interface-setting]\nportId,frameFormat,baudrate,initialDelay,busOffReset,resistor\n"
    "1,0,3,0,0,0\n2,1,7,500,1,1\n\n"
    "[device]\ndeviceId,portId,deviceName\n1,1,drive\n\n"
    "[transactions]\ntransactionId,deviceId,transactionEnable,transactionName,transactionType,"
    "triggerMode,cyclicInterval,fpFunc,fpTimeout,triggerByRTR,consumeToutEnable,consumeTimeout,"
    "timeoutRetry,responseTimeout\n1,1,1,state,1,,,,,,0,,,\n\n"
    "[frame]\nframeId,transactionId,canId,dataLength,frameType\n1,1,181,8,1\n\n"
    "[block]\nblockId,frameId,blockType,startOffset,tagName,tagType,tagSize,access,swap,fpData,"
    "scalingFunc,interceptSlope,interceptOffset,pointSourceMin,pointSourceMax,pointTargetMin,"
    "pointTargetMax,constantName,constantSize,constantValue\n"
    "1,1,0,0,speed,13,2,ro,0,,,,,,,,,,,\n\n";

constexpr const char *post_line = "can_proprietary_rest_post_config_file|";
constexpr const char *get_line = "can_proprietary_rest_get_config_file|";
constexpr const char *status_400 = "get_http_status|error=-1, return 400 bad request\n";
constexpr const char *status_failed = "get_http_status|error=-13, return 400 bad request\n";

std::string status_500(int code) {
    return "get_http_status|error=" + std::to_string(code) + ", return 500 internal server error\n";
}

std::string error_body(int code, const std::string &message) {
    return R"({"error":{"code":)" + std::to_string(code) + R"(,"message":")" + message + "\"}}";
}

/** The two handlers of "/config-file". */
class config_file_handlers : public started_gateway {
protected:
    config_file_handlers() {
        g_fake_rest = {};
        g_multipart_fault = {};
        std::filesystem::create_directories(folder_);
    }
    ~config_file_handlers() override {
        (void)json_fault::disarm();
        (void)allocation_fault::disarm();
    }

    static int post(const std::string &body) {
        g_fake_rest.written.clear();
        return can_proprietary_rest_post_config_file(
            "/CAN-proprietary/config-file", body.data(), body.size());
    }

    static int upload(const std::string &content) { return post(multipart(content)); }

    static int get() {
        return can_proprietary_rest_get_config_file("/CAN-proprietary/config-file", nullptr, 0);
    }

    static std::string multipart(const std::string &content) {
        return "--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"c.csv\"\r\n\r\n" +
               content + "\r\n--b--\r\n";
    }

    static std::string everything() {
        std::string all;
        for (const char *table :
             {"interface_setting", "device", "transactions", "frame", "block"}) {
            all += rows_of(working_db_path(), std::string("SELECT * FROM ") + table) + "\n";
        }
        return all;
    }

    /** The request fails with this body and says this before its status, and no row changes. */
    void refused(const std::string &body,
                 int status,
                 const std::string &answer,
                 const messages &expected) {
        const std::string before = everything();
        EXPECT_EQ(messages_of([&] { EXPECT_EQ(post(body), status); }), expected);
        EXPECT_THAT(g_fake_rest.written, ElementsAre(answer));
        EXPECT_EQ(everything(), before);
    }

    /** An export that fails leaves no body and no file. */
    void export_fails(const messages &expected, int status = 500) {
        EXPECT_EQ(messages_of([&] { EXPECT_EQ(get(), status); }), expected);
        EXPECT_THAT(g_fake_rest.written, IsEmpty());
        EXPECT_EQ(g_fake_rest.download_name, "");
        EXPECT_THAT(names("run/tmp/kt-can-proprietary"), IsEmpty());
    }

    const std::string folder_ = path("run/tmp/kt-can-proprietary");
    const std::string upload_ = folder_ + "/tmp.csv";
};

TEST_F(config_file_handlers, an_upload_is_imported_and_says_success) {
    EXPECT_THAT(messages_of([] { EXPECT_EQ(upload(file_text), 201); }), IsEmpty());
    EXPECT_THAT(g_fake_rest.written, ElementsAre(R"({"data":{"response":"success"}})"));
    EXPECT_EQ(rows_of(working_db_path(), "SELECT deviceName FROM device"), "drive");
    EXPECT_EQ(rows_of(persistent_db_path(), "SELECT deviceName FROM device"), "");
}

TEST_F(config_file_handlers, the_upload_stays_and_the_next_one_replaces_it) {
    ASSERT_EQ(upload(file_text + std::string(1000, '#')), 201);
    EXPECT_EQ(read(upload_), file_text + std::string(1000, '#'));
    ASSERT_EQ(upload(file_text), 201);
    EXPECT_EQ(read(upload_), file_text);
    const captured_log quiet;
    ASSERT_EQ(upload("x"), 400);
    EXPECT_EQ(read(upload_), "x");
    EXPECT_THAT(names("run/tmp/kt-can-proprietary"), ElementsAre("tmp.csv"));
}

TEST_F(config_file_handlers, every_byte_of_the_part_is_saved) {
    std::string all;
    for (int c = 0; c < 256; c++) {
        all += static_cast<char>(c);
    }
    const captured_log quiet;
    EXPECT_EQ(upload(all + all), 400);
    EXPECT_EQ(read(upload_), all + all);
}

TEST_F(config_file_handlers, the_first_part_counts_whatever_it_is_called) {
    const std::string first = std::string("--b\r\n\r\n") + file_text + "\r\n";
    EXPECT_EQ(
        post(first + "--b\r\nContent-Disposition: form-data; name=\"file\"\r\n\r\nx\r\n--b--"),
        201);
    EXPECT_EQ(post(first + "--b--"), 201);
    const captured_log quiet;
    EXPECT_EQ(post("--b\r\n\r\nx\r\n" + first + "--b--"), 400);
    EXPECT_EQ(read(upload_), "x");
}

TEST_F(config_file_handlers, a_missing_uri_or_body) {
    const std::string invalid = error_body(-1, "Invalid parameters");
    const std::string body = multipart(file_text);
    EXPECT_THAT(messages_of([&] {
                    EXPECT_EQ(
                        can_proprietary_rest_post_config_file(nullptr, body.data(), body.size()),
                        400);
                }),
                ElementsAre(post_line + std::string("invalid uri\n"), status_400));
    EXPECT_THAT(messages_of([] {
                    EXPECT_EQ(can_proprietary_rest_post_config_file("/x", nullptr, 0), 400);
                }),
                ElementsAre(post_line + std::string("invalid input_data\n"), status_400));
    EXPECT_THAT(messages_of([] {
                    EXPECT_EQ(can_proprietary_rest_post_config_file(nullptr, nullptr, 0), 400);
                }),
                ElementsAre(post_line + std::string("invalid uri\n"), status_400));
    EXPECT_THAT(g_fake_rest.written, ElementsAre(invalid, invalid, invalid));
    EXPECT_FALSE(exists(upload_));
}

TEST_F(config_file_handlers, a_body_that_is_not_multipart) {
    for (const std::string body :
         {"", "\n", "x", "{}", "--", "--\r\n", "-- b\r\n", file_text, "--b"}) {
        refused(body,
                500,
                error_body(-7, "Fail to get"),
                {post_line + std::string("parse_boundary fail\n"), status_500(-7)});
    }
    EXPECT_FALSE(exists(upload_));
}

TEST_F(config_file_handlers, a_body_that_cannot_be_split) {
    const std::string whole = multipart(file_text);
    for (const std::string &body : {std::string("--b\r\n"),
                                    std::string("--b\r\n\r\n"),
                                    std::string("--b--\r\n"),
                                    std::string("--b\r\nno header\r\n--b--\r\n"),
                                    whole.substr(0, whole.size() - 5),
                                    std::string("--b\r\n\r\nx\r\n--c--\r\n")}) {
        refused(body,
                500,
                error_body(-7, "Fail to get"),
                {post_line + std::string("mp_parse fail\n"), status_500(-7)});
    }
    EXPECT_FALSE(exists(upload_));
}

TEST_F(config_file_handlers, a_body_without_any_part) {
    g_multipart_fault.no_part = true;
    refused(multipart(file_text),
            500,
            error_body(-7, "Fail to get"),
            {post_line + std::string("get input data fail\n"), status_500(-7)});
    EXPECT_FALSE(exists(upload_));
}

TEST_F(config_file_handlers, an_upload_that_cannot_be_opened) {
    std::filesystem::create_directory(upload_);
    refused(multipart(file_text),
            500,
            error_body(-8, "Fail to set"),
            {post_line + std::string("open fail\n"), "Error: : Is a directory\n", status_500(-8)});
    std::filesystem::remove_all(folder_);
    refused(multipart(file_text),
            500,
            error_body(-8, "Fail to set"),
            {post_line + std::string("open fail\n"),
             "Error: : No such file or directory\n",
             status_500(-8)});
}

TEST_F(config_file_handlers, an_upload_that_does_not_fit_on_the_disk) {
    const full_disk disk(600); // of the captured log, too
    for (const std::string &content : {std::string(file_text), std::string(100000, 'x')}) {
        refused(multipart(content),
                500,
                error_body(-8, "Fail to set"),
                {post_line + std::string("save config file fail\n"), status_500(-8)});
    }
}

TEST_F(config_file_handlers, an_upload_is_not_written_through_a_link) {
    write(path("victim"), "untouched");
    std::filesystem::create_symlink(path("victim"), upload_);
    refused(multipart(file_text),
            500,
            error_body(-8, "Fail to set"),
            {post_line + std::string("open fail\n"),
             "Error: : Too many levels of symbolic links\n",
             status_500(-8)});
    EXPECT_EQ(read(path("victim")), "untouched");
}

std::string import_body(const std::string &key, const std::string &variables) {
    return R"({"error":{"code":-13,"message":"import config fail","i18n":{"key":")" + key +
           R"(","variables":{)" + variables + "}}}}";
}

std::string with(const std::string &part, const std::string &by) {
    std::string text = file_text;
    const size_t at = text.find(part);
    EXPECT_NE(at, std::string::npos) << part;
    return text.replace(at, part.size(), by);
}

TEST_F(config_file_handlers, a_missing_section_is_told_with_its_row) {
    std::string text = file_text;
    text.resize(text.find("[block]"));
    refused(multipart(text),
            400,
            import_body("missing-table", R"("errTableName":"block","errRow":1)"),
            {"can_proprietary_conf_import|miss table block\n", status_failed});
}

TEST_F(config_file_handlers, no_key_brings_a_column_into_the_answer) {
    const struct {
        std::string text;
        const char *key;
        const char *variables;
    } rows[] = {
        {with("1,1,drive", "1,,drive"),
         "missing-necessary-parameter",
         R"("errTableName":"device","errRow":1)"},
        {with("1,1,drive", "1,1,drive\n1,1,other"),
         "unique-constraint",
         R"("errTableName":"device","errRow":2)"},
        {with("1,1,drive", "256,1,drive"),
         "check-constraint-failed",
         R"("errTableName":"device","errRow":1)"},
        {with("1,1,drive", "1,3,drive"),
         "foreign-key-constraint-failed",
         R"("errTableName":"device","errRow":1)"},
        {with("deviceId,", "id,"), "column-name-failed", R"("errTableName":"device","errRow":0)"},
        {with("2,1,7,500,1,1\n", ""),
         "internal-err",
         R"("errTableName":"interface_setting","errRow":2)"},
        {with("[device]", "[other]"), "syntax-err", R"("errRow":3)"},
        {"", "missing-table", R"("errTableName":"block","errRow":0)"},
    };
    for (const auto &row : rows) {
        const captured_log quiet;
        const std::string before = everything();
        EXPECT_EQ(upload(row.text), 400) << row.key;
        EXPECT_THAT(g_fake_rest.written, ElementsAre(import_body(row.key, row.variables)));
        EXPECT_EQ(everything(), before);
    }
}

TEST_F(config_file_handlers, too_many_rows_are_told_with_the_row) {
    std::string devices;
    for (int id = 0; id < 256; id++) {
        devices += std::to_string(id) + ",1,d\n";
    }
    const captured_log quiet;
    EXPECT_EQ(upload(with("1,1,drive\n", devices)), 400);
    EXPECT_THAT(g_fake_rest.written,
                ElementsAre(import_body("table-full", R"("errTableName":"device","errRow":256)")));
}

TEST_F(config_file_handlers, an_import_without_a_working_copy_has_an_empty_key) {
    std::filesystem::remove(working_db_path());
    EXPECT_THAT(messages_of([] { EXPECT_EQ(upload(file_text), 400); }),
                ElementsAre("open_db|Can't open database: unable to open database file. " +
                                working_db_path() + "\n",
                            "can_proprietary_conf_import|get db fail\n",
                            status_failed));
    EXPECT_THAT(g_fake_rest.written, ElementsAre(import_body("", R"("errRow":0)")));
}

TEST_F(config_file_handlers, an_answer_that_cannot_be_built_comes_after_the_import) {
    const struct {
        const char *fault;
        const char *line;
        int code;
    } rows[] = {{"init_object", "init output_obj_val fail\n", -4},
                {"data.response", "set data.response fail\n", -6}};
    for (const auto &row : rows) {
        json_fault::arm(row.fault);
        EXPECT_THAT(messages_of([] { EXPECT_EQ(upload(file_text), 500); }),
                    ElementsAre(std::string(post_line) + row.line, status_500(row.code)));
        EXPECT_TRUE(json_fault::disarm());
        EXPECT_THAT(g_fake_rest.written, ElementsAre(error_body(row.code, "Internal error")));
        EXPECT_EQ(rows_of(working_db_path(), "SELECT deviceName FROM device"), "drive");
    }
}

TEST_F(config_file_handlers, an_answer_that_cannot_be_sent) {
    constexpr const char *writer = "write_can_proprietary_rest_import_config_response|";
    json_fault::arm("serialize");
    EXPECT_THAT(messages_of([] { EXPECT_EQ(upload(file_text), 500); }),
                ElementsAre(writer + std::string("set json to string fail\n"), status_500(-5)));
    EXPECT_TRUE(json_fault::disarm());
    EXPECT_THAT(g_fake_rest.written, ElementsAre(error_body(-5, "Internal error")));
    g_fake_rest.write_results = {-2};
    EXPECT_THAT(messages_of([] { EXPECT_EQ(upload(file_text), 500); }),
                ElementsAre(writer + std::string("rest write failed.\n"), status_500(-6)));
    EXPECT_EQ(g_fake_rest.written.back(), error_body(-6, "Internal error"));
}

TEST_F(config_file_handlers, an_error_that_cannot_be_told_leaves_the_status) {
    constexpr const char *writer = "rest_write_import_config_error_msg|";
    const std::string text = with("1,1,drive", "1,,drive");
    const std::pair<const char *, const char *> rows[] = {
        {"init_object", "init json_value fail\n"},
        {"error.code", "set code fail\n"},
        {"error.message", "set message fail\n"},
        {"error.i18n.key", "set error.i18n.key fail\n"},
        {"error.i18n.variables.errTableName", "set error.i18n.variables.errTableName fail\n"},
        {"error.i18n.variables.errRow", "set error.i18n.variables.errRow fail\n"},
        {"serialize", "json to string fail\n"}};
    for (const auto &[fault, line] : rows) {
        json_fault::arm(fault);
        EXPECT_THAT(messages_of([&] { EXPECT_EQ(upload(text), 400); }),
                    ElementsAre("import_device_parm|Data error at line 1, missing necessary "
                                "parameter in column 2\n",
                                writer + std::string(line),
                                status_failed));
        EXPECT_TRUE(json_fault::disarm()) << fault;
        EXPECT_THAT(g_fake_rest.written, IsEmpty());
    }
}

TEST_F(config_file_handlers, a_download_carries_the_configuration_under_a_name_with_the_time) {
    ASSERT_EQ(upload(file_text), 201);
    g_fake_rest.written.clear();
    EXPECT_THAT(messages_of([] { EXPECT_EQ(get(), 200); }), IsEmpty());
    EXPECT_THAT(g_fake_rest.download_name,
                ::testing::MatchesRegex("can_proprietary_[0-9]{14}\\.csv"));
    EXPECT_EQ(g_fake_rest.download, "version: 1.0.0\n\n" + std::string(file_text));
    EXPECT_THAT(g_fake_rest.written, IsEmpty());
    EXPECT_THAT(names("run/tmp/kt-can-proprietary"), ElementsAre("tmp.csv"));
}

TEST_F(config_file_handlers, two_exports_of_one_second_bear_one_name) {
    g_multipart_fault.timestamp = "20260101000000";
    ASSERT_EQ(get(), 200);
    EXPECT_EQ(g_fake_rest.download_name, "can_proprietary_20260101000000.csv");
    g_fake_rest.download_name.clear();
    ASSERT_EQ(get(), 200);
    EXPECT_EQ(g_fake_rest.download_name, "can_proprietary_20260101000000.csv");
    EXPECT_THAT(names("run/tmp/kt-can-proprietary"), IsEmpty());
}

TEST_F(config_file_handlers, an_export_without_a_uri) {
    EXPECT_THAT(messages_of([] {
                    EXPECT_EQ(can_proprietary_rest_get_config_file(nullptr, nullptr, 0), 400);
                }),
                ElementsAre(get_line + std::string("invalid uri\n"), status_400));
    EXPECT_THAT(g_fake_rest.written, IsEmpty());
    EXPECT_EQ(g_fake_rest.download_name, "");
}

TEST_F(config_file_handlers, a_time_that_is_not_there_is_left_out_of_the_name) {
    g_multipart_fault.no_timestamp = true;
    EXPECT_THAT(messages_of([] { EXPECT_EQ(get(), 200); }),
                ElementsAre("can_proprietary_time_get_timestamp|get time fail\n"));
    EXPECT_EQ(g_fake_rest.download_name, "can_proprietary_.csv");
    g_multipart_fault.no_time = true;
    EXPECT_EQ(messages_of([] { EXPECT_EQ(get(), 200); }).size(), 1U);
    EXPECT_EQ(g_fake_rest.download_name, "can_proprietary_.csv");
}

TEST_F(config_file_handlers, a_path_of_at_most_255_bytes_can_be_built) {
    // The folder, "can_proprietary_" and ".csv" take 48 of them.
    g_multipart_fault.timestamp = std::string(208, '1');
    export_fails({get_line + std::string("set file name fail.\n"), status_500(-4)});
    g_multipart_fault.timestamp = std::string(207, '1');
    EXPECT_EQ(get(), 200);
    EXPECT_EQ(g_fake_rest.download_name, "can_proprietary_" + std::string(207, '1') + ".csv");
    EXPECT_THAT(names("run/tmp/kt-can-proprietary"), IsEmpty());
}

TEST_F(config_file_handlers, an_export_that_fails_answers_with_its_status_alone) {
    execute(working_db_path(), "ALTER TABLE frame RENAME TO elsewhere");
    export_fails(
        {"export_frame_parm|no such table: frame. Sql: SELECT * FROM frame\n", status_500(-7)});
    std::filesystem::remove(working_db_path());
    export_fails(
        {"open_db|Can't open database: unable to open database file. " + working_db_path() + "\n",
         "can_proprietary_conf_export|get db fail\n",
         status_500(-7)});
}

TEST_F(config_file_handlers, an_export_that_has_no_folder_finds_no_file) {
    std::filesystem::remove_all(folder_);
    EXPECT_THAT(messages_of([] { EXPECT_EQ(get(), 500); }),
                ElementsAre("can_proprietary_conf_export|open fail\n",
                            "Error: : No such file or directory\n",
                            "rest_export_file|open fail\n",
                            "Error: : No such file or directory\n",
                            status_500(-7)));
    EXPECT_THAT(g_fake_rest.written, IsEmpty());
}

TEST_F(config_file_handlers, a_download_that_cannot_be_sent_leaves_no_file) {
    g_fake_rest.download_result = -2;
    EXPECT_THAT(messages_of([] { EXPECT_EQ(get(), 500); }),
                ElementsAre("rest_export_file|write to handle fail\n", status_500(-7)));
    EXPECT_THAT(g_fake_rest.written, IsEmpty());
    EXPECT_THAT(names("run/tmp/kt-can-proprietary"), IsEmpty());
}

TEST_F(config_file_handlers, every_allocation_that_fails_leaves_no_file) {
    ASSERT_EQ(upload(file_text), 201);
    const captured_log quiet;
    const int faults = allocation_fault::sweep(get, [this](int status, int nth) {
        EXPECT_TRUE(status == 500 || status == 200) << nth;
        EXPECT_THAT(names("run/tmp/kt-can-proprietary"), ElementsAre("tmp.csv")) << nth;
    });
    EXPECT_GE(faults, 2);
}

TEST_F(config_file_handlers, every_allocation_that_fails_imports_whole_or_not_at_all) {
    const std::string before = everything();
    ASSERT_EQ(upload(file_text), 201);
    const std::string after = everything();
    const captured_log quiet;
    const int faults = allocation_fault::sweep(
        [] {
            execute(working_db_path(),
                    "PRAGMA foreign_keys = ON; DELETE FROM interface_setting; INSERT INTO "
                    "interface_setting VALUES (1, 0, 3, 0, 0, 0), (2, 0, 3, 0, 0, 0)");
            return upload(file_text);
        },
        [&](int status, int nth) {
            const std::string found = everything();
            EXPECT_TRUE(found == after || (status >= 400 && found == before)) << nth;
        });
    EXPECT_GE(faults, 3);
}

} // namespace
