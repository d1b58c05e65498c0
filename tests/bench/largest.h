#ifndef KT_TESTS_BENCH_LARGEST_H
#define KT_TESTS_BENCH_LARGEST_H

#include <string>

/** How much a configuration holds; two ports, requests with two frames, eight tags in a frame. */
struct configuration_size {
    int devices;
    int transactions;

    [[nodiscard]] int frames() const { return 2 * transactions; }
    [[nodiscard]] int tags() const { return 8 * frames(); }
};

/** As much as fits. */
constexpr configuration_size largest_size = {255, 512};

/** The same rows twice: as sections of a configuration file and as statements of one transaction.
 */
struct both_forms {
    std::string file;
    std::string sql;
};

both_forms make_configuration(const configuration_size &size);

#endif
