#include "core/runtime_file.h"
#include "platform/scratch_folder.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

class runtime_file : public scratch_root {
protected:
    std::string file_ = path("traffic-log0.csv");

    /** @return errno of an open that has to fail */
    int refused(const char *mode) {
        errno = 0;
        EXPECT_EQ(open_runtime_file(file_.c_str(), mode), nullptr) << mode;
        return errno;
    }
};

TEST_F(runtime_file, reads_replaces_and_appends) {
    EXPECT_EQ(refused("r"), ENOENT);
    EXPECT_GE(fputs("one", open_runtime_file(file_.c_str(), "w").get()), 0);
    EXPECT_GE(fputs("two", open_runtime_file(file_.c_str(), "a").get()), 0);
    EXPECT_EQ(read(file_), "onetwo");
    EXPECT_GE(fputs("new", open_runtime_file(file_.c_str(), "w").get()), 0);
    const file_ptr file = open_runtime_file(file_.c_str(), "r");
    char text[8] = {};
    EXPECT_STREQ(fgets(text, sizeof text, file.get()), "new");
    EXPECT_GE(fputs("N", open_runtime_file(file_.c_str(), "r+").get()), 0);
    EXPECT_EQ(read(file_), "New");
}

TEST_F(runtime_file, is_not_inherited_by_child_processes) {
    for (const char *mode : {"w", "a", "r"}) {
        const file_ptr file = open_runtime_file(file_.c_str(), mode);
        ASSERT_NE(file, nullptr);
        EXPECT_NE(fcntl(fileno(file.get()), F_GETFD) & FD_CLOEXEC, 0) << mode;
    }
}

TEST_F(runtime_file, link_to_another_file_is_refused_and_that_file_untouched) {
    write(path("victim"), "secret");
    std::filesystem::create_symlink(path("victim"), file_);
    for (const char *mode : {"r", "r+", "w", "a"}) {
        EXPECT_EQ(refused(mode), ELOOP);
    }
    EXPECT_EQ(read(path("victim")), "secret");
}

TEST_F(runtime_file, link_to_nothing_makes_nothing) {
    std::filesystem::create_symlink(path("victim"), file_);
    EXPECT_EQ(refused("w"), ELOOP);
    EXPECT_EQ(refused("a"), ELOOP);
    EXPECT_FALSE(std::filesystem::exists(path("victim")));
}

TEST_F(runtime_file, link_in_the_way_to_the_folder_is_the_administrators) {
    std::filesystem::create_directory(path("real"));
    std::filesystem::create_directory_symlink(path("real"), path("tmp"));
    file_ = path("tmp/traffic-log0.csv");
    EXPECT_GE(fputs("row", open_runtime_file(file_.c_str(), "w").get()), 0);
    EXPECT_EQ(read(path("real/traffic-log0.csv")), "row");
}

TEST_F(runtime_file, fifo_holds_nobody_up) {
    ASSERT_EQ(mkfifo(file_.c_str(), 0600), 0);
    EXPECT_EQ(refused("a"), ENXIO);
    EXPECT_EQ(refused("w"), ENXIO);
    const file_ptr file = open_runtime_file(file_.c_str(), "r");
    EXPECT_EQ(fgetc(file.get()), EOF);
}

TEST_F(runtime_file, other_failures_are_those_of_the_system) {
    std::filesystem::create_directory(file_);
    EXPECT_EQ(refused("w"), EISDIR);
    file_ = path("missing/file");
    EXPECT_EQ(refused("a"), ENOENT);
}

} // namespace
