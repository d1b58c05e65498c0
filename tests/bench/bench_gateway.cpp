#include "bench_gateway.h"

#include "config/database_files.h"
#include "core/state.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace {

std::string make_root() {
    const char *folder = getenv("TMPDIR");
    if (folder == nullptr) {
        folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    }
    std::string name = std::string(folder) + "/kt-bench-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        give_up("no scratch folder " + name);
    }
    return name;
}

} // namespace

void give_up(const std::string &what) {
    (void)fprintf(stderr, "%s\n", what.c_str());
    exit(1);
}

bench_gateway::bench_gateway() : root_(make_root()) {
    (void)setenv("KT_ROOT", root_.c_str(), 1);
    g_can_port_count = 2;
    const std::filesystem::path schema(shipped_schema_path());
    std::filesystem::create_directories(schema.parent_path());
    std::filesystem::copy_file(KT_SCHEMA_FILE, schema);
    if (can_proprietary_db_init_user_config() != 0) {
        give_up("the databases cannot be prepared");
    }
}

bench_gateway::~bench_gateway() {
    std::error_code ignored; // the numbers are out
    std::filesystem::remove_all(root_, ignored);
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
