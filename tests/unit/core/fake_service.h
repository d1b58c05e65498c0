#ifndef KT_TESTS_FAKE_SERVICE_H
#define KT_TESTS_FAKE_SERVICE_H

#include <functional>
#include <mutex>
#include <string>
#include <vector>

/* Everything that the service entry calls. The port threads may be many. */

struct fake_service {
    std::vector<std::string> ports;
    int lists_in_vain = 0; /* calls of can_list() that have no memory */
    int rest_result = 0;
    std::function<void()> first_step;          /* called by the first call of the entry */
    std::function<int()> prepare_databases;    /* result of the start of a pass, 0 without it */
    std::function<void()> ports_listed;        /* called at the end of can_list() */
    std::function<void(unsigned)> port_thread; /* called with the port index */
    std::function<void()> pass_ends;           /* called by the first step of the teardown */
    std::function<void()> rest_cleaned_up;     /* called by rest_cleanup() */
    bool pass_services_fail = false;           /* traffic, diagnostics and device count */
    int threads_refused_from = -1;             /* number of the first thread that cannot be had */

    std::vector<std::string> calls;     /* of the main thread */
    std::vector<unsigned> port_threads; /* indices, sorted by the test */
    std::mutex mutex;                   /* port_threads */
    int threads = 0;
};

extern fake_service *g_fake_service;

int service_main(int argc, char **argv);

/** The service entry, without arguments. */
inline int service_main() {
    return service_main(0, nullptr);
}

#endif
