#ifndef KT_TESTS_CONFIG_FIXTURE_H
#define KT_TESTS_CONFIG_FIXTURE_H

#include "captured_log.h"
#include "config/database.h"
#include "config/database_files.h"
#include "core/log.h"
#include "core/state.h"
#include "fake_busy_timeout.h"
#include "fake_sleep.h"
#include "platform/scratch_folder.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <memory>
#include <sqlite3.h>
#include <string>
#include <vector>

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using messages = std::vector<std::string>;

struct close_connection {
    void operator()(sqlite3 *db) const { EXPECT_EQ(sqlite3_close(db), SQLITE_OK); }
};
using connection = std::unique_ptr<sqlite3, close_connection>;

/** A connection of the test's own, without any setting. */
inline connection connect(const std::string &path) {
    sqlite3 *db = nullptr;
    EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    return connection(db);
}

/** Rows as "a|b c|d", NULL as "NULL"; "error: text" when the statement fails. */
inline std::string rows_of(sqlite3 *db, const std::string &sql) {
    std::string found;
    const auto collect = [](void *to, int count, char **values, char **) {
        auto &text = *static_cast<std::string *>(to);
        text += text.empty() ? "" : " ";
        for (int i = 0; i < count; i++) {
            text += i == 0 ? "" : "|";
            text += values[i] == nullptr ? "NULL" : values[i];
        }
        return 0;
    };
    const int result = sqlite3_exec(db, sql.c_str(), collect, &found, nullptr);
    return result == SQLITE_OK ? found : std::string("error: ") + sqlite3_errmsg(db);
}

inline std::string rows_of(const std::string &path, const std::string &sql) {
    return rows_of(connect(path).get(), sql);
}

inline void execute(const std::string &path, const std::string &sql) {
    EXPECT_EQ(rows_of(path, sql).rfind("error: ", 0), std::string::npos) << rows_of(path, sql);
}

/** A gateway with two ports, its files below a scratch folder, before its first start. */
class gateway : public scratch_root {
protected:
    gateway() {
        use_memory();
        std::filesystem::create_directories(
            std::filesystem::path(shipped_schema_path()).parent_path());
        write(shipped_schema_path(), schema());
        g_can_port_count = 2;
        can_proprietary_restart = 0;
        g_stop_requested = 0;
        log_set_level(LOG_LEVEL_WARN);
        g_fake_busy_timeout.used_ms = 50;
        g_fake_busy_timeout.after_wait = nullptr;
        g_fake_sleep = {};
    }
    ~gateway() override { g_stop_requested = 0; }

    /** SQLite and the installing of files wait for the disk; in memory that costs nothing. */
    void use_memory() {
        char name[] = "/dev/shm/kt-unit-XXXXXX";
        if (mkdtemp(name) != nullptr) {
            std::filesystem::remove(path_);
            path_ = name;
            (void)setenv("KT_ROOT", name, 1);
        }
    }

    static std::string schema() { return read(KT_SCHEMA_FILE); }

    static void start() { ASSERT_EQ(can_proprietary_db_init_user_config(), 0); }

    static bool exists(const std::string &file) { return std::filesystem::exists(file); }

    static void make_folder_of(const std::string &file) {
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    }

    /**
     * Every file below the two folders of the databases, without the temporary files that the
     * library's own copying leaves when it is cut off.
     */
    std::vector<std::string> files() const {
        std::vector<std::string> found;
        for (const char *folder : {"data", "run"}) {
            if (!exists(path(folder))) {
                continue;
            }
            for (const auto &entry : std::filesystem::recursive_directory_iterator(path(folder))) {
                if (!entry.is_directory() &&
                    entry.path().filename().string().find(".sql.") == std::string::npos) {
                    found.push_back(std::filesystem::relative(entry.path(), path_).string());
                }
            }
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    static std::vector<std::string> files_of_a_started_gateway() {
        return {"data/config/kt-can-proprietary/can_proprietary.db",
                "data/config/kt-can-proprietary/default/can_proprietary.db",
                "data/config/kt-can-proprietary/default/can_proprietary.sql",
                "run/config/kt-can-proprietary/can_proprietary.db"};
    }

    static std::vector<std::string> databases() {
        return {default_db_path(), persistent_db_path(), working_db_path()};
    }

    static void expect_no_database() {
        for (const std::string &file : databases()) {
            EXPECT_FALSE(exists(file)) << file;
        }
    }

    static void expect_all_databases() {
        for (const std::string &file : databases()) {
            EXPECT_TRUE(exists(file)) << file;
        }
    }
};

/** The same after its first start. */
class started_gateway : public gateway {
protected:
    started_gateway() { EXPECT_EQ(can_proprietary_db_init_user_config(), 0); }
};

#endif
