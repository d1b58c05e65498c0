#include "captured_log.h"
#include "core/no_memory.h"

#include <gmock/gmock.h>
#include <new>
#include <string>
#include <vector>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(no_memory, work_that_has_its_memory_gives_its_result) {
    EXPECT_THAT(messages_of([] { EXPECT_EQ(unless_no_memory("f", -1, [] { return 7; }), 7); }),
                IsEmpty());
}

TEST(no_memory, work_that_runs_out_of_memory_gives_the_other_result_and_is_logged) {
    log_set_level(LOG_LEVEL_WARN); // other tests of the program silence it
    const auto work = []() -> int { throw std::bad_alloc(); };
    EXPECT_THAT(messages_of([&] { EXPECT_EQ(unless_no_memory("f", -1, work), -1); }),
                ElementsAre("f|malloc fail\n"));
}

} // namespace
