#ifndef KT_TESTS_FAKE_REST_H
#define KT_TESTS_FAKE_REST_H

#include <kt/rest.h>

#include <string>
#include <vector>

/* The REST server without a network: what is registered and written is kept. One thread. */

struct fake_rest_registration {
    int handle;
    std::string path;
    int method;
    rest_callback callback;
};

struct fake_rest {
    int init_result = 7;       /* the handle */
    std::string service;       /* of rest_init() */
    int failing_row = 0;       /* registration that fails, from 1 */
    int register_result = -99; /* its result */
    std::vector<fake_rest_registration> registrations;

    std::vector<int> write_results; /* of the next rest_write() calls, then 0 */
    std::vector<std::string> written;
    std::string download_name;
    std::string download;
    int download_result = 0;
};

extern fake_rest g_fake_rest;

#endif
