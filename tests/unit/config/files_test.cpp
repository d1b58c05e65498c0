#include "allocation_fault.h"
#include "captured_log.h"
#include "config/files.h"
#include "crash_point.h"
#include "platform/scratch_folder.h"

#include <cerrno>
#include <cstdlib>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using messages = std::vector<std::string>;

class files : public scratch_folder {
protected:
    std::string target = path("target");

    /** Content, the messages in logged. "no text" when nothing comes back. */
    std::string contents(const std::string &file, messages *logged = nullptr) {
        length = 12345;
        captured_log log;
        char *text = get_file_contents(file.c_str(), &length);
        const messages taken = log.take();
        if (logged != nullptr) {
            *logged = taken;
        } else {
            EXPECT_THAT(taken, IsEmpty());
        }
        const std::string found = text == nullptr ? "no text" : std::string(text, length);
        EXPECT_TRUE(text == nullptr || text[length] == '\0');
        free(text);
        return found;
    }

    size_t length = 0;
};

TEST_F(files, text_is_read_whole_and_terminated) {
    write(target, "CREATE TABLE a;\n");
    EXPECT_EQ(contents(target), "CREATE TABLE a;\n");
    EXPECT_EQ(length, 16U);
}

TEST_F(files, zero_bytes_in_a_text_are_kept) {
    const std::string text("a\0b", 3);
    write(target, text);
    EXPECT_EQ(contents(target), text);
}

TEST_F(files, large_text_is_read_whole) {
    const std::string text(300000, 's');
    write(target, text);
    EXPECT_EQ(contents(target), text);
}

TEST_F(files, missing_text_is_logged_with_its_path_and_reason) {
    messages logged;
    EXPECT_EQ(contents(target, &logged), "no text");
    EXPECT_THAT(logged,
                ElementsAre("get_file_contents|Fail to open " + target +
                            ", Error : No such file or directory\n"));
}

TEST_F(files, text_without_a_position_is_logged) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const std::string unseekable = "/proc/self/fd/" + std::to_string(ends[0]);
    messages logged;
    EXPECT_EQ(contents(unseekable, &logged), "no text");
    EXPECT_THAT(logged, ElementsAre("get_file_contents|Fail to get pos in " + unseekable + "\n"));
    EXPECT_EQ(close(ends[0]), 0);
    EXPECT_EQ(close(ends[1]), 0);
}

TEST_F(files, want_of_memory_is_logged) {
    write(target, "x");
    messages logged;
    allocation_fault::arm(1);
    EXPECT_EQ(contents(target, &logged), "no text");
    EXPECT_TRUE(allocation_fault::disarm());
    EXPECT_THAT(logged, ElementsAre("get_file_contents|Fail to malloc space for schema.\n"));
}

TEST_F(files, empty_text_is_logged_and_returned) {
    write(target, "");
    messages logged;
    EXPECT_EQ(contents(target, &logged), "");
    EXPECT_THAT(logged, ElementsAre("get_file_contents|Fail to read schema. " + target + "\n"));
}

TEST_F(files, removing_succeeds_when_nothing_is_there) {
    EXPECT_TRUE(remove_if_present(target));
    write(target, "x");
    EXPECT_TRUE(remove_if_present(target));
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(files, removing_fails_with_the_reason_when_the_file_stays) {
    std::filesystem::create_directories(target + "/x");
    EXPECT_FALSE(remove_if_present(target));
    EXPECT_EQ(errno, ENOTEMPTY);
}

TEST_F(files, database_goes_with_its_journal) {
    for (const char *name : {"target", "target-journal", "target-other"}) {
        write(path(name), "x");
    }
    remove_database(target);
    EXPECT_THAT(names(), ElementsAre("target-other"));
    remove_database(target);
}

TEST_F(files, journal_goes_without_its_database) {
    write(path("target-journal"), "x");
    remove_database(target);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(files, installed_file_replaces_its_target) {
    write(path("fresh"), "new");
    write(target, "old");
    EXPECT_TRUE(install_file(path("fresh"), target));
    EXPECT_THAT(names(), ElementsAre("target"));
    EXPECT_EQ(read(target), "new");
}

TEST_F(files, file_that_is_missing_is_not_installed) {
    write(target, "old");
    EXPECT_FALSE(install_file(path("fresh"), target));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(read(target), "old");
}

TEST_F(files, folder_is_not_replaced_by_a_file) {
    write(path("fresh"), "new");
    std::filesystem::create_directory(target);
    EXPECT_FALSE(install_file(path("fresh"), target));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(read(path("fresh")), "new");
}

TEST_F(files, file_is_on_the_disk_before_it_is_renamed_and_the_folder_after) {
    // Steps: file to the disk, journal away, renamed, folder to the disk.
    for (int step = 1; step <= 5; step++) {
        write(path("fresh"), "new");
        write(target, "old");
        crash_point::fail_change(step);
        EXPECT_EQ(install_file(path("fresh"), target), step == 5);
        const int reason = errno;
        EXPECT_EQ(crash_point::stop_failing(), step < 5);
        EXPECT_TRUE(step == 5 || reason == EIO) << step;
        EXPECT_EQ(read(target), step < 4 ? "old" : "new") << step;
    }
}

TEST_F(files, journal_of_the_target_goes_before_the_file_comes) {
    write(path("fresh"), "new");
    write(target + "-journal", "old");
    EXPECT_TRUE(install_file(path("fresh"), target));
    EXPECT_THAT(names(), ElementsAre("target"));
}

TEST_F(files, existence_is_that_of_files_and_folders) {
    EXPECT_FALSE(file_exists(target));
    write(target, "");
    EXPECT_TRUE(file_exists(target));
    EXPECT_TRUE(file_exists(path_));
}

TEST_F(files, file_that_cannot_be_looked_for_counts_as_there) {
    std::filesystem::create_symlink("loop", path("loop"));
    EXPECT_TRUE(file_exists(path("loop")));
    EXPECT_TRUE(file_exists(path("loop/file")));
    write(path("file"), "");
    EXPECT_FALSE(file_exists(path("file/file")));
}

} // namespace
