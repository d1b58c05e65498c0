#include "allocation_fault.h"
#include "captured_log.h"
#include "core/log.h"
#include "platform/scratch_folder.h"
#include "rest/fake_rest.h"
#include "rest/file_download.h"

#include <gmock/gmock.h>

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class file_download : public scratch_folder {
protected:
    file_download() {
        g_fake_rest = {};
        log_set_level(LOG_LEVEL_WARN);
    }

    int send() { return rest_export_file(file_.c_str(), "name.csv", "open %s fail\n"); }

    std::string file_ = path("file");
};

TEST_F(file_download, the_whole_file_is_sent_under_the_name) {
    using namespace std::string_literals;
    for (const std::string &content : {"x"s, "a\0b\n\xff"s, std::string(100000, 'y')}) {
        write(file_, content);
        EXPECT_THAT(messages_of([this] { EXPECT_EQ(send(), 0); }), IsEmpty());
        EXPECT_EQ(g_fake_rest.download_name, "name.csv");
        EXPECT_EQ(g_fake_rest.download, content);
    }
    EXPECT_TRUE(std::filesystem::exists(file_));
}

TEST_F(file_download, an_empty_file_is_sent_empty) {
    write(file_, "");
    g_fake_rest.download = "before";
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(g_fake_rest.download_name, "name.csv");
    EXPECT_EQ(g_fake_rest.download, "");
}

TEST_F(file_download, a_file_that_cannot_be_opened) {
    EXPECT_THAT(messages_of([this] { EXPECT_EQ(send(), -1); }),
                ElementsAre("rest_export_file|open " + file_ + " fail\n",
                            "Error: : No such file or directory\n"));
    EXPECT_THAT(
        messages_of(
            [this] { EXPECT_EQ(rest_export_file(file_.c_str(), "name.csv", "open fail\n"), -1); }),
        ElementsAre("rest_export_file|open fail\n", "Error: : No such file or directory\n"));
    EXPECT_EQ(g_fake_rest.download_name, "");
}

TEST_F(file_download, a_file_without_a_size_is_sent_empty) {
    file_ = "/proc/self/comm";
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(g_fake_rest.download, "");
}

TEST_F(file_download, lack_of_memory_for_the_content) {
    write(file_, "content");
    allocation_fault::arm(1);
    EXPECT_THAT(messages_of([this] { EXPECT_EQ(send(), -1); }),
                ElementsAre("rest_export_file|malloc response_body fail\n"));
    EXPECT_TRUE(allocation_fault::disarm());
    EXPECT_EQ(g_fake_rest.download_name, "");
}

TEST_F(file_download, a_file_that_cannot_be_sent) {
    write(file_, "content");
    g_fake_rest.download_result = -2;
    EXPECT_THAT(messages_of([this] { EXPECT_EQ(send(), -1); }),
                ElementsAre("rest_export_file|write to handle fail\n"));
}

} // namespace
