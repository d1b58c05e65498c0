#include "scratch_folder.h"

#include <kt/protocol_common.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

using ::testing::ElementsAre;
using bytes = std::vector<uint8_t>;

bytes hex(const char *text, size_t size) {
    bytes out(size + 2, 0xee);
    const int count = atoh(text, out.data(), size);
    EXPECT_GE(count, 0);
    for (size_t i = static_cast<size_t>(count); i < out.size(); ++i) {
        EXPECT_EQ(out[i], 0xee) << "byte " << i << " beyond the result";
    }
    out.resize(static_cast<size_t>(count));
    return out;
}

TEST(atoh, two_digits_make_a_byte_in_text_order) {
    EXPECT_EQ(hex("0102", 8), (bytes{1, 2}));
    EXPECT_EQ(hex("00ff10AbCd", 8), (bytes{0, 0xff, 0x10, 0xab, 0xcd}));
}

TEST(atoh, odd_number_of_digits_reads_as_if_a_0_stood_in_front) {
    EXPECT_EQ(hex("1", 8), (bytes{1}));
    EXPECT_EQ(hex("123", 8), (bytes{1, 0x23}));
    EXPECT_EQ(hex("fedcba987654321", 8), (bytes{0xf, 0xed, 0xcb, 0xa9, 0x87, 0x65, 0x43, 0x21}));
}

TEST(atoh, text_ends_at_the_first_character_that_is_no_digit) {
    EXPECT_EQ(hex("12zz", 8), (bytes{0x12}));
    EXPECT_EQ(hex("123g5", 8), (bytes{1, 0x23}));
    EXPECT_EQ(hex("0x12", 8), (bytes{0}));
    EXPECT_EQ(hex(" 12", 8), (bytes{}));
    EXPECT_EQ(hex("", 8), (bytes{}));
}

TEST(atoh, exactly_the_22_hexadecimal_digits_count) {
    for (int c = 1; c < 256; ++c) {
        const char text[] = {'1', static_cast<char>(c), '\0'};
        EXPECT_EQ(hex(text, 1).at(0) >= 0x10, c < 128 && isxdigit(c)) << c;
    }
}

TEST(atoh, digits_beyond_the_room_are_not_looked_at) {
    EXPECT_EQ(hex("010203", 2), (bytes{1, 2}));
    EXPECT_EQ(hex("01023", 2), (bytes{1, 2}));
    EXPECT_EQ(hex("0102zz", 2), (bytes{1, 2}));
    EXPECT_EQ(hex("12", 0), (bytes{}));
    EXPECT_EQ(hex("123", 1), (bytes{0x12}));
    const char unterminated[4] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(hex(unterminated, 2), (bytes{0xab, 0xcd}));
}

TEST(atoh, null_gives_no_bytes) {
    uint8_t out[1];
    EXPECT_EQ(atoh(nullptr, out, 1), 0);
    EXPECT_EQ(atoh("12", nullptr, 1), 0);
}

class folders : public scratch_folder {
protected:
    mode_t mode_of(const std::string &name) const {
        struct stat info = {};
        EXPECT_EQ(stat(path(name).c_str(), &info), 0);
        return info.st_mode & 07777;
    }
};

TEST_F(folders, parents_are_made) {
    EXPECT_EQ(mkdir_p(path("a/b/c").c_str()), 0);
    EXPECT_TRUE(std::filesystem::is_directory(path("a/b/c")));
}

TEST_F(folders, mode_is_0755_less_the_umask) {
    const mode_t before = umask(0027);
    EXPECT_EQ(mkdir_p(path("a/b").c_str()), 0);
    umask(0);
    EXPECT_EQ(mkdir_p(path("c").c_str()), 0);
    umask(before);
    EXPECT_EQ(mode_of("a"), 0750u);
    EXPECT_EQ(mode_of("a/b"), 0750u);
    EXPECT_EQ(mode_of("c"), 0755u);
}

TEST_F(folders, existing_folder_is_a_success_and_stays_as_it_is) {
    ASSERT_EQ(mkdir(path("a").c_str(), 0700), 0);
    EXPECT_EQ(mkdir_p(path("a").c_str()), 0);
    EXPECT_EQ(mkdir_p(path("a/b").c_str()), 0);
    EXPECT_EQ(mode_of("a"), 0700u);
    EXPECT_EQ(mkdir_p("/"), 0);
}

TEST_F(folders, repeated_and_closing_slashes_do_not_matter) {
    EXPECT_EQ(mkdir_p((path("a") + "//b///c/").c_str()), 0);
    EXPECT_TRUE(std::filesystem::is_directory(path("a/b/c")));
}

TEST_F(folders, relative_path_and_link_to_a_folder_work) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(path_);
    EXPECT_EQ(mkdir_p("r/s"), 0);
    std::filesystem::current_path(before);
    std::filesystem::create_directory_symlink(path("r"), path("link"));
    EXPECT_EQ(mkdir_p(path("link/t").c_str()), 0);
    EXPECT_TRUE(std::filesystem::is_directory(path("r/t")));
}

TEST_F(folders, file_in_the_way_is_reported) {
    write(path("file"), "");
    EXPECT_EQ(mkdir_p(path("file").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(mkdir_p(path("file/a").c_str()), -1);
    EXPECT_EQ(errno, ENOTDIR);
}

TEST_F(folders, bad_paths_are_reported) {
    EXPECT_EQ(mkdir_p(nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mkdir_p(""), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(mkdir_p(path(std::string(PATH_MAX, 'a')).c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(mkdir_p(path(std::string(NAME_MAX + 1, 'a')).c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(mkdir_p("/proc/no/such"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(folders, threads_that_make_the_same_folder_all_succeed) {
    std::vector<std::thread> makers;
    std::atomic<int> failed = 0;
    for (int t = 0; t < 4; ++t) {
        makers.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                failed += mkdir_p(path(std::to_string(i) + "/x/y").c_str()) != 0;
            }
        });
    }
    for (std::thread &maker : makers) {
        maker.join();
    }
    EXPECT_EQ(failed, 0);
}

class copies : public scratch_folder {
protected:
    int copy(const std::string &to, const std::string &from) {
        return file_copy(path(to).c_str(), path(from).c_str());
    }
};

TEST_F(copies, content_is_the_same_byte_for_byte) {
    for (const size_t size : {0, 1, 16383, 16384, 16385, 1000003}) {
        std::string text(size, '\0');
        for (size_t i = 0; i < size; ++i) {
            text[i] = static_cast<char>(i * 31 + i / 251);
        }
        write(path("source"), text);
        EXPECT_EQ(copy("copy", "source"), 0);
        EXPECT_EQ(read(path("copy")), text) << size;
    }
    EXPECT_THAT(names(), ElementsAre("copy", "source"));
}

TEST_F(copies, new_file_gets_the_sources_permissions_a_replaced_one_keeps_its_own) {
    write(path("source"), "x");
    ASSERT_EQ(chmod(path("source").c_str(), 0640), 0);
    ASSERT_EQ(copy("new", "source"), 0);
    write(path("kept"), "y");
    ASSERT_EQ(chmod(path("kept").c_str(), 0600), 0);
    ASSERT_EQ(copy("kept", "source"), 0);
    struct stat info;
    ASSERT_EQ(stat(path("new").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    ASSERT_EQ(stat(path("kept").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_EQ(read(path("kept")), "x");
}

TEST_F(copies, reader_of_the_old_file_keeps_the_old_content) {
    write(path("source"), "new");
    write(path("copy"), "old");
    std::ifstream reader(path("copy"));
    ASSERT_EQ(copy("copy", "source"), 0);
    std::string text;
    reader >> text;
    EXPECT_EQ(text, "old");
    EXPECT_EQ(read(path("copy")), "new");
}

TEST_F(copies, readers_never_see_a_mixture) {
    write(path("a"), std::string(200000, 'a'));
    write(path("b"), std::string(200000, 'b'));
    ASSERT_EQ(copy("copy", "a"), 0);
    std::atomic<bool> done = false;
    std::thread writer([&] {
        for (int i = 0; i < 40; ++i) {
            EXPECT_EQ(copy("copy", i % 2 ? "a" : "b"), 0);
        }
        done = true;
    });
    while (!done) {
        const std::string text = read(path("copy"));
        EXPECT_EQ(text.size(), 200000u);
        EXPECT_EQ(text.find_first_not_of(text[0]), std::string::npos);
    }
    writer.join();
}

TEST_F(copies, file_may_be_copied_onto_itself) {
    write(path("source"), "content");
    EXPECT_EQ(copy("source", "source"), 0);
    EXPECT_EQ(read(path("source")), "content");
}

TEST_F(copies, relative_destination_works) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(path_);
    write("source", "content");
    EXPECT_EQ(file_copy("copy", "source"), 0);
    EXPECT_EQ(read("copy"), "content");
    std::filesystem::current_path(before);
}

TEST_F(copies, failure_leaves_the_destination_and_no_temporary_file) {
    write(path("copy"), "old");
    std::filesystem::create_directory(path("folder"));
    EXPECT_EQ(copy("copy", "missing"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(copy("copy", "folder"), -1);
    EXPECT_EQ(errno, EISDIR);
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    EXPECT_EQ(copy("copy", "pipe"), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(copy("no/such/folder", "copy"), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(copy("folder", "copy"), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(copy(std::string(PATH_MAX, 'a'), "copy"), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(file_copy(nullptr, path("copy").c_str()), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(file_copy(path("copy").c_str(), nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(read(path("copy")), "old");
    EXPECT_THAT(names(), ElementsAre("copy", "folder", "pipe"));
}

TEST_F(copies, disk_that_fills_up_leaves_the_destination) {
    write(path("source"), std::string(100000, 's'));
    write(path("copy"), "old");
    const auto old_handler = signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small = {50000, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const int result = copy("copy", "source");
    const int reason = errno;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    (void)signal(SIGXFSZ, old_handler);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(reason, EFBIG);
    EXPECT_EQ(read(path("copy")), "old");
    EXPECT_THAT(names(), ElementsAre("copy", "source"));
}

} // namespace
