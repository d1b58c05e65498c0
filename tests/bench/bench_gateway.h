#ifndef KT_TESTS_BENCH_GATEWAY_H
#define KT_TESTS_BENCH_GATEWAY_H

#include "gateway_folder.h"

#include <sqlite3.h>
#include <string>
#include <string_view>

/** End the program with a message: a number from a failed run would be worth nothing. */
[[noreturn]] void give_up(const std::string &what);

/** A started gateway with two ports and no devices. */
class bench_gateway {
public:
    [[nodiscard]] std::string path(const char *name) const { return folder_.path(name); }

    /** Execute statements on the working copy through a connection of their own. */
    static void execute(const std::string &sql);

private:
    gateway_folder folder_{"kt-bench"};
};

/** A connection with the settings that the service gives its own. */
sqlite3 *open_like_the_service(const std::string &path);

void execute_on(sqlite3 *db, const std::string &sql);

void write_file(const std::string &path, std::string_view content);

#endif
