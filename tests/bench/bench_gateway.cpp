#include "bench_gateway.h"

#include "config/database_files.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

void give_up(const std::string &what) {
    (void)fprintf(stderr, "%s\n", what.c_str());
    exit(1);
}

void bench_gateway::execute(const std::string &sql) {
    sqlite3 *db = open_like_the_service(working_db_path());
    execute_on(db, sql);
    (void)sqlite3_close(db);
}

sqlite3 *open_like_the_service(const std::string &path) {
    sqlite3 *db = nullptr;
    constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX;
    if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
        give_up("cannot open " + path);
    }
    execute_on(db,
               "PRAGMA synchronous = OFF; PRAGMA foreign_keys = ON; PRAGMA journal_mode = DELETE");
    return db;
}

void execute_on(sqlite3 *db, const std::string &sql) {
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) {
        give_up(sql.substr(0, 200) + ": " + sqlite3_errmsg(db));
    }
}

void write_file(const std::string &path, std::string_view content) {
    std::ofstream file(path, std::ios::binary);
    if (!file.write(content.data(), static_cast<std::streamsize>(content.size())).flush()) {
        give_up("cannot write " + path);
    }
}
