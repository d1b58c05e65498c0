#include "events.h"
#include "platform/scratch_folder.h"

#include <kt/event_agent.h>

#include <poll.h>

namespace {

class event_follower_test : public scratch_root {
protected:
    void make_folder() { std::filesystem::create_directories(path("run/kt-event-agent")); }
    void append(const std::string &text) const {
        std::ofstream(file(), std::ios::binary | std::ios::app) << text;
    }
    std::string file() const { return path("run/kt-event-agent/events.jsonl"); }

    static std::vector<std::string> news(event_follower &follower) {
        std::vector<std::string> lines;
        (void)follower.read([&](std::string_view line) { lines.emplace_back(line); });
        return lines;
    }
    using lines = std::vector<std::string>;
};

} // namespace

TEST_F(event_follower_test, old_lines_are_no_news) {
    make_folder();
    append("old\n");
    event_follower follower;
    EXPECT_EQ(news(follower), lines{});
    append("new\n");
    EXPECT_EQ(news(follower), lines{"new"});
    EXPECT_EQ(news(follower), lines{});
}

TEST_F(event_follower_test, a_file_that_comes_later_is_read_from_its_beginning) {
    event_follower follower;
    EXPECT_EQ(news(follower), lines{});
    make_folder();
    append("first\nsecond\n");
    EXPECT_EQ(news(follower), (lines{"first", "second"}));
}

TEST_F(event_follower_test, half_a_line_waits_for_its_end) {
    make_folder();
    append("");
    event_follower follower;
    append("one\ntw");
    EXPECT_EQ(news(follower), lines{"one"});
    append("o\n");
    EXPECT_EQ(news(follower), lines{"two"});
}

TEST_F(event_follower_test, nothing_is_lost_when_the_file_is_replaced) {
    make_folder();
    append("a\n");
    event_follower follower;
    append("b\n");
    std::filesystem::rename(file(), file() + ".1");
    append("c\n");
    EXPECT_EQ(news(follower), (lines{"b", "c"}));
    append("d\n");
    EXPECT_EQ(news(follower), lines{"d"});
}

TEST_F(event_follower_test, a_file_that_is_begun_anew_in_place_is_followed) {
    make_folder();
    append("a long line of old\n");
    event_follower follower;
    std::filesystem::resize_file(file(), 0);
    append("new\n");
    EXPECT_EQ(news(follower), lines{"new"});
}

TEST_F(event_follower_test, a_line_without_end_takes_no_memory_and_is_left_out) {
    make_folder();
    append("");
    event_follower follower;
    append(std::string(100000, 'x'));
    EXPECT_EQ(news(follower), lines{});
    append(std::string(100000, 'x') + "\nshort\n");
    EXPECT_EQ(news(follower), lines{"short"});
}

TEST_F(event_follower_test, a_link_or_a_pipe_is_no_event_file) {
    make_folder();
    write(path("secret"), "secret\n");
    event_follower follower;
    std::filesystem::create_symlink(path("secret"), file());
    EXPECT_EQ(news(follower), lines{});
}

TEST_F(event_follower_test, the_descriptor_tells_of_an_event_of_the_agent) {
    make_folder();
    event_follower follower;
    struct pollfd watch = {follower.descriptor(), POLLIN, 0};
    EXPECT_EQ(poll(&watch, 1, 0), 0);
    event_handle *agent = event_create(nullptr, nullptr);
    ASSERT_EQ(event_notify(agent, "name", "host", "message"), 0);
    event_destroy(agent);
    EXPECT_EQ(poll(&watch, 1, 30000), 1);
    const lines found = news(follower);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_NE(found[0].find(R"("name":"name","host":"host","message":"message"})"),
              std::string::npos);
    EXPECT_EQ(poll(&watch, 1, 0), 0);
}
