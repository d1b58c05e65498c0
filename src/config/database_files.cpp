#include "config/database_files.h"

#include "config/database.h"
#include "config/files.h"
#include "config/sqlite_guards.h"
#include "core/log.h"
#include "core/no_memory.h"
#include "core/state.h"

#include <kt/protocol_common.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *data_folder = "/data/config/kt-can-proprietary";
constexpr const char *default_folder = "/data/config/kt-can-proprietary/default";
constexpr const char *working_folder = "/run/config/kt-can-proprietary";

std::atomic<int64_t> g_ram_modified_time{0};

void make_folder(const char *path) {
    (void)mkdir_p(rooted_path(path).c_str()); // the open that follows reports what is wrong
}

int build_schema(const std::string &file, const char *schema) {
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open(file.c_str(), &opened);
    const db_ptr db(opened);
    if (result != SQLITE_OK) {
        log_write_error("create_default_db",
                        __LINE__,
                        "Fail to open default file. %s\n",
                        sqlite3_errmsg(opened));
        return -1;
    }
    // The file only counts once it is installed, which syncs it.
    (void)sqlite3_exec(opened, "PRAGMA synchronous = OFF", nullptr, nullptr, nullptr);
    if (sqlite3_exec(opened, schema, nullptr, nullptr, nullptr) != SQLITE_OK) {
        log_write_error(
            "create_default_db", __LINE__, "Fail to set schema. %s\n", sqlite3_errmsg(opened));
        return -1;
    }
    return 0;
}

/** Saving the schema marks the persistent rows as fitting it, so a migration does that last. */
enum class schema_copy { save, later };

/** A migration replaces the old file where a removal would have failed. */
void report_default_db_in_the_way(schema_copy copy, int reason) {
    if (copy == schema_copy::later) {
        log_write_error("do_migration",
                        __LINE__,
                        "Fail to remove %s, Error : %s\n",
                        default_db_path().c_str(),
                        strerror(reason));
    } else {
        log_write_error(
            "create_default_db", __LINE__, "Fail to open default file. %s\n", strerror(reason));
    }
}

int create_default_db(schema_copy copy) {
    make_folder(data_folder);
    const std::string shipped = shipped_schema_path();
    size_t length = 0;
    bool is_cut = false;
    const heap_ptr<char> schema(get_file_contents(shipped.c_str(), &length, &is_cut));
    // Tables that half a schema lacks would be missed by every start to come.
    if (schema == nullptr || is_cut) {
        log_error("can not read  %s db schema\n", shipped.c_str());
        return -1;
    }
    make_folder(default_folder);
    const std::string fresh = default_db_path() + ".new";
    remove_database(fresh);
    if (build_schema(fresh, schema.get()) != 0) {
        remove_database(fresh);
        return -1;
    }
    if (copy == schema_copy::save && file_copy(saved_schema_path().c_str(), shipped.c_str()) != 0) {
        log_error("file copy fail\n");
        remove_database(fresh);
        return -1;
    }
    if (!install_file(fresh, default_db_path())) {
        report_default_db_in_the_way(copy, errno);
        remove_database(fresh);
        return -1;
    }
    return 0;
}

bool is_sql_the_same() {
    const std::string saved_path = saved_schema_path();
    size_t saved_length = 0;
    const heap_ptr<char> saved(get_file_contents(saved_path.c_str(), &saved_length));
    if (saved == nullptr) {
        log_error("can not read  %s db schema\n", saved_path.c_str());
        return false;
    }
    const std::string shipped_path = shipped_schema_path();
    size_t shipped_length = 0;
    const heap_ptr<char> shipped(get_file_contents(shipped_path.c_str(), &shipped_length));
    if (shipped == nullptr) {
        log_error("can not read  %s schema\n", shipped_path.c_str());
        return false;
    }
    return saved_length == shipped_length && memcmp(saved.get(), shipped.get(), saved_length) == 0;
}

/**
 * Carry the persistent rows into the shipped schema.
 *
 * The default database and the persistent one are replaced, not removed first, and the saved schema
 * changes last: cut off anywhere, the next start migrates again from rows that are whole.
 */
int do_migration() {
    if (create_default_db(schema_copy::later) != 0) {
        return -1;
    }
    const std::string fresh = default_db_path();
    const std::string rows = persistent_db_path();
    const bool nothing_to_carry = !file_exists(rows);
    const bool merged = ktsqlite3_merge(fresh.c_str(), rows.c_str(), rows.c_str()) == 0;
    if (!merged) {
        log_error("merge '%s' into '%s' fail!\n", rows.c_str(), fresh.c_str());
    }
    // Without rows there is nothing to lose, and the next start then makes a new persistent copy.
    if (!merged && !nothing_to_carry) {
        return -1;
    }
    if (!remove_if_present(working_db_path())) {
        log_error("Fail to remove %s, Error : %s\n", working_db_path().c_str(), strerror(errno));
        return -1;
    }
    if (file_copy(saved_schema_path().c_str(), shipped_schema_path().c_str()) != 0) {
        log_error("file copy fail\n");
        return -1;
    }
    return merged ? 0 : -1;
}

int insert_default_row(const std::string &file) {
    const std::string shown = persistent_db_path();
    const db_ptr db(open_db_no_foreign(file.c_str(), shown.c_str()));
    if (db == nullptr) {
        log_error("Cannot open '%s'\n", shown.c_str());
        return -1;
    }
    const int32_t ports = g_can_port_count.load(std::memory_order_relaxed);
    for (int32_t i = 0; i < ports; i++) {
        constexpr const char *sql = "INSERT INTO interface_setting DEFAULT VALUES;";
        if (sqlite3_exec(db.get(), sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
            return -1;
        }
    }
    return 0;
}

/** Made beside its place, so that a persistent database without its port rows never stands there.
 */
int create_persistent_db() {
    const std::string fresh = persistent_db_path() + ".new";
    remove_database(fresh);
    const std::string shown = persistent_db_path();
    if (db_copy_into(fresh.c_str(), shown.c_str(), default_db_path().c_str()) != 0) {
        log_write_error("can_proprietary_db_init_user_config",
                        __LINE__,
                        "Copy can_proprietary default config DB fail!\n");
        remove_database(fresh);
        return -1;
    }
    if (insert_default_row(fresh) != 0 || !install_file(fresh, shown)) {
        remove_database(fresh);
        return -1;
    }
    return 0;
}

int copy_persistent_db_to_ram() {
    make_folder(working_folder);
    // A copy makes a source that is not there, and the next start would take it for the rows.
    if (access(persistent_db_path().c_str(), F_OK) != 0) {
        return -1;
    }
    return db_copy(working_db_path().c_str(), persistent_db_path().c_str());
}

/** The databases of a gateway whose default database is gone are not trusted. */
int start_from_schema() {
    for (const std::string &path : {persistent_db_path(), working_db_path()}) {
        if (!remove_if_present(path)) {
            log_write_error("can_proprietary_db_init_user_config",
                            __LINE__,
                            "Fail to remove %s, Error : %s\n",
                            path.c_str(),
                            strerror(errno));
            return -1;
        }
        remove_database(path);
    }
    return create_default_db(schema_copy::save);
}

int migrate_if_changed() {
    if (is_sql_the_same()) {
        return 0;
    }
    const std::string saved = saved_schema_path();
    if (!file_exists(saved)) {
        // A default database of unknown schema stops every start. On purpose.
        log_write_error("can_proprietary_db_init_user_config",
                        __LINE__,
                        "Fail to remove %s, Error : %s\n",
                        saved.c_str(),
                        strerror(errno));
        return -1;
    }
    return do_migration();
}

int get_ram_modified_time(int64_t *seconds) {
    struct stat status {};
    const auto read = [&status] { return stat(working_db_path().c_str(), &status); };
    if (unless_no_memory(__func__, -1, read) != 0) {
        log_error("Fail to get time, Error : %s\n", strerror(errno));
        return -1;
    }
    *seconds = status.st_mtime;
    return 0;
}

/** Where others may make files below /run, a link must not lead edits to another file. */
int drop_working_link() {
    const std::string path = working_db_path();
    struct stat status {};
    if (lstat(path.c_str(), &status) != 0 || !S_ISLNK(status.st_mode)) {
        return 0;
    }
    log_error("%s is a symbolic link, removed\n", path.c_str());
    return remove_if_present(path) ? 0 : -1;
}

int prepare_databases() {
    const bool first_start = !file_exists(default_db_path());
    if ((first_start ? start_from_schema() : migrate_if_changed()) != 0) {
        return -1;
    }
    if (!file_exists(persistent_db_path()) && create_persistent_db() != 0) {
        return -1;
    }
    if (drop_working_link() != 0 ||
        (!file_exists(working_db_path()) && copy_persistent_db_to_ram() != 0)) {
        log_write_error("can_proprietary_db_init_user_config",
                        __LINE__,
                        "Copy can_proprietary config DB fail!\n");
        return -1;
    }
    return can_proprietary_db_update_ram_modified_time();
}

} // namespace

std::string shipped_schema_path() {
    return rooted_path("/etc/default/config/kt-can-proprietary/can_proprietary.sql");
}

std::string saved_schema_path() {
    return rooted_path("/data/config/kt-can-proprietary/default/can_proprietary.sql");
}

std::string default_db_path() {
    return rooted_path("/data/config/kt-can-proprietary/default/can_proprietary.db");
}

std::string persistent_db_path() {
    return rooted_path("/data/config/kt-can-proprietary/can_proprietary.db");
}

std::string working_db_path() {
    return rooted_path("/run/config/kt-can-proprietary/can_proprietary.db");
}

void remove_all_databases() {
    remove_database(default_db_path());
    remove_database(persistent_db_path());
    remove_database(working_db_path());
}

int can_proprietary_db_init_user_config() {
    return unless_no_memory(__func__, -1, prepare_databases);
}

int can_proprietary_conf_apply() {
    const auto copy = [] {
        return db_copy(persistent_db_path().c_str(), working_db_path().c_str());
    };
    if (unless_no_memory(__func__, -1, copy) != 0) {
        log_error("apply config fail\n");
        return -5;
    }
    return can_proprietary_db_update_ram_modified_time() == 0 ? 0 : -5;
}

int can_proprietary_conf_discard() {
    if (unless_no_memory(__func__, -1, copy_persistent_db_to_ram) != 0) {
        log_error("discard config fail\n");
        return -5;
    }
    return can_proprietary_db_update_ram_modified_time() == 0 ? 0 : -5;
}

int can_proprietary_db_update_ram_modified_time() {
    int64_t seconds = 0;
    if (get_ram_modified_time(&seconds) != 0) {
        log_error("get time fail\n");
        return -1;
    }
    g_ram_modified_time.store(seconds, std::memory_order_relaxed);
    return 0;
}

int can_proprietary_db_get_ram_modified(int *changed) {
    int64_t seconds = 0;
    if (get_ram_modified_time(&seconds) != 0) {
        log_error("update fail\n");
        return -1;
    }
    *changed = seconds != g_ram_modified_time.load(std::memory_order_relaxed) ? 1 : 0;
    return 0;
}
