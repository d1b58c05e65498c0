#include "allocation_fault.h"
#include "can/runtime.h"
#include "captured_log.h"
#include "core/log.h"
#include "core/state.h"
#include "fake_service.h"
#include "fake_sleep.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <gmock/gmock.h>
#include <thread>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using calls = std::vector<std::string>;

void stop() {
    g_stop_requested = 1;
}

/** Two ports whose threads end at once; the first pass is the last one. */
class service : public ::testing::Test {
protected:
    service() {
        g_stop_requested = 0;
        can_proprietary_restart = 0;
        log_set_level(LOG_LEVEL_WARN);
        g_fake_sleep = {};
        g_fake_service = &fake;
        fake.ports = {"can0", "can1"};
        fake.port_thread = [](unsigned) { stop(); };
    }
    ~service() override {
        g_fake_service = nullptr;
        g_stop_requested = 0;
        can_proprietary_restart = 0;
        for (const int number : {SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) {
            (void)signal(number, SIG_DFL);
        }
    }

    std::vector<unsigned> sorted_threads() {
        std::sort(fake.port_threads.begin(), fake.port_threads.end());
        return fake.port_threads;
    }

    long times(const char *call) const {
        return std::count(fake.calls.begin(), fake.calls.end(), call);
    }

    static int modules() {
        int count = 0;
        for (const can_module *module = g_can_module_list; module; module = module->next) {
            count++;
        }
        return count;
    }

    fake_service fake;
};

const calls start_up = {"event create", "rest init CAN-proprietary", "dx create", "can list 0"};
const calls begin_of_pass = {
    "databases", "traffic init 2", "diag create 2", "led init", "device num 0", "status init 7"};
const calls end_of_pass = {"traffic deinit", "led release", "status release", "diag release"};
const calls shut_down = {"dx destroy", "event destroy", "rest cleanup"};

calls joined(const std::vector<calls> &parts) {
    calls all;
    for (const calls &part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

TEST_F(service, one_pass_in_order) {
    int modules_seen = 0;
    std::string names;
    fake.prepare_databases = [&] {
        modules_seen = modules();
        names = std::string(can_port_name(0)) + " " + can_port_name(1);
        return 0;
    };
    bool released = false; // before the last step
    fake.rest_cleaned_up = [&released] {
        released = g_can_module_list == nullptr && g_can_port_list == nullptr;
    };
    EXPECT_THAT(messages_of([] { EXPECT_EQ(service_main(), 0); }), IsEmpty());
    EXPECT_EQ(fake.calls, joined({start_up, begin_of_pass, end_of_pass, shut_down}));
    EXPECT_THAT(sorted_threads(), ElementsAre(0, 1));
    EXPECT_EQ(modules_seen, 2);
    EXPECT_EQ(names, "can0 can1");
    EXPECT_TRUE(released);
    EXPECT_EQ(g_can_module_list, nullptr);
    EXPECT_EQ(g_can_port_list, nullptr);
}

TEST_F(service, applied_configuration_begins_a_new_pass) {
    int passes = 0;
    fake.prepare_databases = [&passes] {
        EXPECT_EQ(can_proprietary_restart, 0);
        passes++;
        return 0;
    };
    fake.port_thread = [&passes](unsigned) {
        can_proprietary_restart = 1;
        if (passes == 3) {
            stop();
        }
    };
    EXPECT_EQ(service_main(), 0);
    const calls pass = joined({begin_of_pass, end_of_pass});
    EXPECT_EQ(fake.calls, joined({start_up, pass, pass, pass, shut_down}));
    EXPECT_THAT(sorted_threads(), ElementsAre(0, 0, 0, 1, 1, 1));
    EXPECT_THAT(g_fake_sleep.slept_ms, IsEmpty());
}

TEST_F(service, modules_and_names_are_those_of_the_start_in_every_pass) {
    std::vector<const can_module *> firsts;
    std::vector<const char *> names;
    fake.prepare_databases = [&] {
        firsts.push_back(g_can_module_list);
        names.push_back(can_port_name(1));
        return 0;
    };
    fake.port_thread = [&firsts](unsigned) {
        can_proprietary_restart = 1;
        if (firsts.size() == 2) {
            stop();
        }
    };
    EXPECT_EQ(service_main(), 0);
    ASSERT_EQ(firsts.size(), 2U);
    EXPECT_EQ(firsts[0], firsts[1]);
    EXPECT_EQ(names[0], names[1]);
}

TEST_F(service, pass_lasts_until_the_last_thread_has_ended) {
    std::atomic<int> ended = 0;
    fake.port_thread = [&ended](unsigned index) {
        while (index == 1 && ended == 0) {
            std::this_thread::yield(); // the port that is joined last ends last
        }
        stop();
        ended++;
    };
    fake.pass_ends = [&ended] { EXPECT_EQ(ended, 2); };
    EXPECT_EQ(service_main(), 0);
    EXPECT_EQ(times("traffic deinit"), 1);
}

TEST_F(service, pass_runs_without_the_services_that_fail) {
    fake.pass_services_fail = true;
    EXPECT_EQ(service_main(), 0);
    EXPECT_THAT(sorted_threads(), ElementsAre(0, 1));
    calls begin = begin_of_pass;
    begin.back() = "status init 0"; // a count that cannot be read is 0
    EXPECT_EQ(fake.calls, joined({start_up, begin, end_of_pass, shut_down}));
}

TEST_F(service, ports_that_cannot_start_are_tried_again_after_a_second) {
    fake.port_thread = nullptr;
    g_fake_sleep.during = [] {
        if (g_fake_sleep.slept_ms.size() == 15) {
            stop();
        }
    };
    EXPECT_EQ(service_main(), 0);
    EXPECT_EQ(times("databases"), 2);
    EXPECT_EQ(g_fake_sleep.slept_ms, std::vector<long>(15, 100));
}

TEST_F(service, configuration_that_cannot_be_opened_ends_it_without_clean_up) {
    fake.prepare_databases = [] { return -1; };
    EXPECT_EQ(service_main(), -1);
    EXPECT_EQ(fake.calls, joined({start_up, {"databases"}}));
    EXPECT_THAT(fake.port_threads, IsEmpty());
    // What it leaves to the end of the process:
    while (g_can_module_list != nullptr) {
        can_module *next = g_can_module_list->next;
        delete g_can_module_list;
        g_can_module_list = next;
    }
    for (char **name = g_can_port_list; *name != nullptr; name++) {
        free(*name);
    }
    free(g_can_port_list);
    g_can_port_list = nullptr;
}

TEST_F(service, stays_alive_without_ports) {
    fake.ports.clear();
    g_fake_sleep.during = [] {
        if (g_fake_sleep.slept_ms.size() == 3) {
            stop();
        }
    };
    EXPECT_EQ(service_main(), 0);
    EXPECT_EQ(fake.calls, joined({start_up, {"databases", "databases", "databases"}, shut_down}));
    EXPECT_EQ(g_fake_sleep.slept_ms, std::vector<long>(3, 100));
    EXPECT_THAT(fake.port_threads, IsEmpty());
}

TEST_F(service, without_memory_for_the_ports_asks_again_before_it_touches_the_databases) {
    fake.lists_in_vain = 2;
    EXPECT_THAT(messages_of([] { EXPECT_EQ(service_main(), 0); }),
                ElementsAre("find_ports|can_list fail\n", "find_ports|can_list fail\n"));
    const calls again = {"can list 0", "can list 0"};
    EXPECT_EQ(fake.calls, joined({start_up, again, begin_of_pass, end_of_pass, shut_down}));
    EXPECT_EQ(g_fake_sleep.slept_ms, std::vector<long>(10, 100));
    EXPECT_THAT(sorted_threads(), ElementsAre(0, 1));
}

TEST_F(service, a_stop_ends_the_wait_for_the_ports) {
    fake.lists_in_vain = 1000;
    g_fake_sleep.during = [] { stop(); };
    EXPECT_THAT(messages_of([] { EXPECT_EQ(service_main(), 0); }), SizeIs(2));
    EXPECT_EQ(fake.calls, joined({start_up, {"can list 0"}, shut_down}));
}

TEST_F(service, restart_flag_is_cleared_without_ports_too) {
    fake.ports.clear();
    int passes = 0;
    fake.prepare_databases = [&passes] {
        EXPECT_EQ(can_proprietary_restart, 0);
        can_proprietary_restart = 1;
        if (++passes == 2) {
            stop();
        }
        return 0;
    };
    EXPECT_EQ(service_main(), 0);
    EXPECT_EQ(passes, 2);
    EXPECT_EQ(can_proprietary_restart, 0);
}

TEST_F(service, port_count_of_256_leaves_no_records) {
    fake.ports.assign(256, "can");
    EXPECT_EQ(service_main(), 0);
    EXPECT_EQ(times("traffic init 0"), 1);
    EXPECT_EQ(times("diag create 0"), 1);
}

TEST_F(service, runs_without_rest) {
    fake.rest_result = -1;
    EXPECT_THAT(
        messages_of([] { EXPECT_EQ(service_main(), 0); }),
        ElementsAre("service_main|can_proprietary rest init fail\n")); // main in the service
    EXPECT_THAT(sorted_threads(), ElementsAre(0, 1));
}

TEST_F(service, number_of_ports_is_cut_to_8_bits_for_records) {
    fake.ports.assign(300, "can");
    EXPECT_EQ(service_main(), 0);
    EXPECT_EQ(times("traffic init 44"), 1);
    EXPECT_EQ(times("diag create 44"), 1);
    EXPECT_EQ(fake.port_threads.size(), 300U);
}

TEST_F(service, signals_stop_it) {
    for (const int number : {SIGINT, SIGQUIT, SIGTERM}) {
        g_stop_requested = 0;
        fake.calls.clear();
        fake.port_thread = [number](unsigned index) {
            if (index == 1) {
                (void)raise(SIGPIPE); // ignored
                EXPECT_EQ(g_stop_requested, 0);
                (void)raise(number);
            }
        };
        EXPECT_EQ(service_main(), 0);
        EXPECT_EQ(g_stop_requested, 1);
        EXPECT_EQ(times("databases"), 1);
    }
}

TEST_F(service, signals_are_routed_before_the_first_step) {
    fake.first_step = [] {
        (void)raise(SIGPIPE);
        EXPECT_EQ(g_stop_requested, 0);
        (void)raise(SIGTERM);
        EXPECT_EQ(g_stop_requested, 1);
    };
    EXPECT_EQ(service_main(), 0);
    EXPECT_EQ(fake.calls, joined({start_up, shut_down})); // stopped before its first pass
    EXPECT_EQ(g_can_module_list, nullptr);
}

TEST_F(service, want_of_memory_for_a_module_leaves_fewer) {
    for (const int nth : {1, 2}) {
        g_stop_requested = 0;
        fake.ports_listed = [nth] { allocation_fault::arm(nth); };
        int seen = -1;
        fake.prepare_databases = [&seen] {
            EXPECT_TRUE(allocation_fault::disarm());
            seen = modules();
            return 0;
        };
        EXPECT_THAT(messages_of([] { EXPECT_EQ(service_main(), 0); }),
                    ElementsAre("can_module_init|calloc fail\n"));
        EXPECT_EQ(seen, nth - 1);
    }
    EXPECT_THAT(sorted_threads(), ElementsAre(0, 0, 1, 1));
}

TEST_F(service, want_of_memory_for_the_threads_ends_it) {
    for (const int nth : {1, 2}) {
        g_stop_requested = 0;
        fake.calls.clear();
        fake.prepare_databases = [nth] {
            allocation_fault::arm(nth);
            return 0;
        };
        EXPECT_THAT(messages_of([] { EXPECT_EQ(service_main(), 0); }),
                    ElementsAre("can_ports_communication_start|calloc fail\n"));
        EXPECT_TRUE(allocation_fault::disarm());
        EXPECT_EQ(g_stop_requested, 1);
        EXPECT_EQ(fake.calls, joined({start_up, begin_of_pass, shut_down}));
    }
    EXPECT_THAT(fake.port_threads, IsEmpty());
}

TEST_F(service, thread_that_cannot_be_had_leaves_the_others) {
    fake.threads_refused_from = 1;
    EXPECT_EQ(service_main(), 0);
    EXPECT_THAT(fake.port_threads, ElementsAre(0));
    EXPECT_EQ(fake.calls, joined({start_up, begin_of_pass, end_of_pass, shut_down}));
}

TEST_F(service, log_level_comes_from_the_environment) {
    (void)setenv("KT_CANOPEN_XLOG_USER_LEVEL", "OFF", 1);
    fake.rest_result = -1;
    EXPECT_THAT(messages_of([] { EXPECT_EQ(service_main(), 0); }), IsEmpty());
    (void)unsetenv("KT_CANOPEN_XLOG_USER_LEVEL");
}

} // namespace
