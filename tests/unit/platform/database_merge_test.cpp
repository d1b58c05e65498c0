#include "scratch_folder.h"

#include <kt/protocol_common.h>

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using rows = std::vector<std::string>;

class database {
public:
    explicit database(const std::string &path) {
        EXPECT_EQ(sqlite3_open(path.c_str(), &db_), SQLITE_OK);
    }
    ~database() { EXPECT_EQ(sqlite3_close(db_), SQLITE_OK); }
    database(const database &) = delete;
    database &operator=(const database &) = delete;

    void run(const std::string &sql) {
        EXPECT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
            << sql << ": " << sqlite3_errmsg(db_);
    }
    // Each row with its columns joined by '|', NULL as "-".
    rows query(const std::string &sql) {
        rows found;
        const auto add = [](void *to, int count, char **values, char **) {
            std::string row;
            for (int i = 0; i < count; ++i) {
                row.append(i ? "|" : "").append(values[i] ? values[i] : "-");
            }
            static_cast<rows *>(to)->push_back(row);
            return 0;
        };
        EXPECT_EQ(sqlite3_exec(db_, sql.c_str(), add, &found, nullptr), SQLITE_OK)
            << sql << ": " << sqlite3_errmsg(db_);
        return found;
    }

private:
    sqlite3 *db_ = nullptr;
};

class database_merge : public scratch_folder {
protected:
    void make(const std::string &name, const std::string &sql) { database(path(name)).run(sql); }
    int merge(const std::string &output = "out") {
        return ktsqlite3_merge(path("new").c_str(), path("old").c_str(), path(output).c_str());
    }
    rows query(const std::string &name, const std::string &sql) {
        return database(path(name)).query(sql);
    }
    // A failed merge says why on standard error, once or more, and leaves every file as it was.
    void expect_refused(const std::string &output = "out") {
        std::vector<std::pair<std::string, std::string>> before;
        for (const std::string &name : names()) {
            before.emplace_back(name, read(path(name)));
        }
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(merge(output), -1);
        (void)::testing::internal::GetCapturedStderr();
        std::vector<std::pair<std::string, std::string>> after;
        for (const std::string &name : names()) {
            after.emplace_back(name, read(path(name)));
        }
        EXPECT_EQ(after, before);
    }
};

TEST_F(database_merge, rows_are_carried_over_by_column_name_with_their_keys) {
    make("new", "CREATE TABLE t(name TEXT, added INTEGER DEFAULT 7, id INTEGER PRIMARY KEY)");
    make("old",
         "CREATE TABLE t(id INTEGER PRIMARY KEY, gone TEXT, name TEXT);"
         "INSERT INTO t VALUES(3,'x','three'),(10,'y','ten'),(-1,'z',NULL)");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT id, name, added FROM t ORDER BY id"),
                ElementsAre("-1|-|7", "3|three|7", "10|ten|7"));
    EXPECT_THAT(query("out", "SELECT name FROM pragma_table_info('t')"),
                ElementsAre("name", "added", "id"));
    EXPECT_THAT(names(), ElementsAre("new", "old", "out"));
}

TEST_F(database_merge, inputs_stay_as_they_were) {
    make("new", "CREATE TABLE t(id INTEGER PRIMARY KEY, n)");
    make("old", "CREATE TABLE t(id INTEGER PRIMARY KEY); INSERT INTO t VALUES(1)");
    const std::string fresh = read(path("new"));
    const std::string old = read(path("old"));
    ASSERT_EQ(merge(), 0);
    EXPECT_EQ(read(path("new")), fresh);
    EXPECT_EQ(read(path("old")), old);
}

TEST_F(database_merge, output_may_be_the_old_database) {
    make("new", "CREATE TABLE t(id INTEGER PRIMARY KEY, added DEFAULT 5)");
    make("old", "CREATE TABLE t(id INTEGER PRIMARY KEY); INSERT INTO t VALUES(1),(2)");
    ASSERT_EQ(merge("old"), 0);
    EXPECT_THAT(query("old", "SELECT * FROM t"), ElementsAre("1|5", "2|5"));
    EXPECT_THAT(names(), ElementsAre("new", "old"));
}

TEST_F(database_merge, output_may_be_the_new_database) {
    make("new", "CREATE TABLE t(id INTEGER PRIMARY KEY, added DEFAULT 5)");
    make("old", "CREATE TABLE t(id INTEGER PRIMARY KEY); INSERT INTO t VALUES(1)");
    ASSERT_EQ(merge("new"), 0);
    EXPECT_THAT(query("new", "SELECT * FROM t"), ElementsAre("1|5"));
}

TEST_F(database_merge, renamed_column_counts_as_gone_and_new) {
    make("new", "CREATE TABLE t(id INTEGER PRIMARY KEY, after TEXT DEFAULT 'd')");
    make("old", "CREATE TABLE t(id INTEGER PRIMARY KEY, before TEXT); INSERT INTO t VALUES(1,'b')");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT * FROM t"), ElementsAre("1|d"));
}

TEST_F(database_merge, names_match_whatever_their_case) {
    make("new", "CREATE TABLE Tab(Id INTEGER PRIMARY KEY, NAME)");
    make("old", "CREATE TABLE tAB(iD INTEGER PRIMARY KEY, name); INSERT INTO tab VALUES(4,'n')");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT * FROM Tab"), ElementsAre("4|n"));
}

TEST_F(database_merge, tables_that_only_one_has) {
    make("new", "CREATE TABLE t(a); CREATE TABLE only_new(a); INSERT INTO only_new VALUES('seed')");
    make("old",
         "CREATE TABLE t(a); CREATE TABLE only_old(a); INSERT INTO only_old VALUES('x');"
         "INSERT INTO t VALUES('row')");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT name FROM sqlite_schema ORDER BY name"),
                ElementsAre("only_new", "t"));
    EXPECT_THAT(query("out", "SELECT a FROM only_new"), ElementsAre("seed"));
    EXPECT_THAT(query("out", "SELECT a FROM t"), ElementsAre("row"));
}

TEST_F(database_merge, table_without_a_common_column_carries_nothing) {
    make("new", "CREATE TABLE t(a)");
    make("old", "CREATE TABLE t(b); INSERT INTO t VALUES('x')");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT * FROM t"), IsEmpty());
}

TEST_F(database_merge, odd_names_are_quoted) {
    const std::string schema =
        R"(CREATE TABLE "a ""b"" 'c'; --"("select" INTEGER PRIMARY KEY, "x""y", "it's", "[z]");)";
    make("new", schema);
    make("old", schema + R"(INSERT INTO "a ""b"" 'c'; --" VALUES(1,2,3,4))");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", R"(SELECT * FROM "a ""b"" 'c'; --")"), ElementsAre("1|2|3|4"));
}

TEST_F(database_merge, values_keep_their_types) {
    make("new", "CREATE TABLE t(v, added)");
    make("old",
         "CREATE TABLE t(v); INSERT INTO t VALUES(1),(1.5),('text'),(x'00ff'),(NULL),"
         "(9223372036854775807),('')");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT typeof(v), quote(v) FROM t ORDER BY rowid"),
                ElementsAre("integer|1",
                            "real|1.5",
                            "text|'text'",
                            "blob|X'00FF'",
                            "null|NULL",
                            "integer|9223372036854775807",
                            "text|''"));
}

TEST_F(database_merge, rows_keep_their_order) {
    make("new", "CREATE TABLE t(a)");
    make("old",
         "CREATE TABLE t(a, wide); CREATE INDEX narrow ON t(a);" // would be read in its place
         "INSERT INTO t VALUES(3, zeroblob(9000)), (1, zeroblob(9000)), (2, zeroblob(9000))");
    ASSERT_THAT(query("old", "SELECT a FROM t"), ElementsAre("1", "2", "3"));
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT a FROM t NOT INDEXED"), ElementsAre("3", "1", "2"));
}

TEST_F(database_merge, table_without_rowid_is_carried_over) {
    make("new", "CREATE TABLE t(k TEXT PRIMARY KEY, v) WITHOUT ROWID; CREATE TABLE u(k, v)");
    make("old",
         "CREATE TABLE t(k TEXT PRIMARY KEY, v) WITHOUT ROWID; INSERT INTO t VALUES('b',1),('a',2);"
         "CREATE TABLE u(k PRIMARY KEY, v) WITHOUT ROWID; INSERT INTO u VALUES('c',3)");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT * FROM t"), ElementsAre("a|2", "b|1"));
    EXPECT_THAT(query("out", "SELECT * FROM u"), ElementsAre("c|3"));
}

TEST_F(database_merge, generated_columns_are_computed_not_copied) {
    make("new", "CREATE TABLE t(a, twice AS (a * 2), kept AS (a + 1) STORED, plain)");
    make("old", "CREATE TABLE t(a, twice, plain AS (a * 10)); INSERT INTO t(a,twice) VALUES(4,0)");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT a, twice, kept, plain FROM t"), ElementsAre("4|8|5|40"));
}

TEST_F(database_merge, triggers_do_not_run) {
    const std::string schema = "CREATE TABLE t(a); CREATE TABLE log(a);";
    make("new",
         schema + "CREATE TRIGGER refuse BEFORE INSERT ON t BEGIN SELECT RAISE(ABORT,'no'); END;"
                  "CREATE TRIGGER count AFTER INSERT ON t BEGIN INSERT INTO log VALUES(1); END");
    make("old", schema + "INSERT INTO t VALUES(1)");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT * FROM t"), ElementsAre("1"));
    EXPECT_THAT(query("out", "SELECT * FROM log"), IsEmpty());
    EXPECT_THAT(query("out", "SELECT name FROM sqlite_schema WHERE type = 'trigger' ORDER BY name"),
                ElementsAre("count", "refuse"));
}

TEST_F(database_merge, rows_without_their_parent_are_carried_over) {
    const std::string schema = "CREATE TABLE parent(id INTEGER PRIMARY KEY);"
                               "CREATE TABLE child(id INTEGER PRIMARY KEY, parent REFERENCES"
                               " parent(id) ON DELETE CASCADE);";
    make("new", schema);
    make("old", schema + "INSERT INTO child VALUES(1, 77)");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT * FROM child"), ElementsAre("1|77"));
}

TEST_F(database_merge, rows_that_break_a_check_are_carried_over) {
    make("new", "CREATE TABLE t(a CHECK(a < 10), b, CHECK(b > a))");
    make("old", "CREATE TABLE t(a, b); INSERT INTO t VALUES(50, 1)");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT * FROM t"), ElementsAre("50|1"));
}

TEST_F(database_merge, old_rows_that_break_the_old_check_are_carried_over) {
    const std::string schema = "CREATE TABLE t(a CHECK(a < 10));";
    make("new", schema);
    make("old", schema + "PRAGMA ignore_check_constraints = ON; INSERT INTO t VALUES(50)");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT * FROM t"), ElementsAre("50"));
}

TEST_F(database_merge, null_that_is_no_longer_allowed_becomes_the_default) {
    make("new",
         "CREATE TABLE t(id INTEGER PRIMARY KEY, s TEXT NOT NULL DEFAULT 'it''s',"
         " e NOT NULL DEFAULT (1 + 2), n DEFAULT 9)");
    make("old",
         "CREATE TABLE t(id INTEGER PRIMARY KEY, s, e, n);"
         "INSERT INTO t VALUES(1,NULL,NULL,NULL),(2,'s',0,1)");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT * FROM t"), ElementsAre("1|it's|3|-", "2|s|0|1"));
}

TEST_F(database_merge, delivered_rows_stay_unless_an_old_row_has_their_key) {
    const std::string schema = "CREATE TABLE t(id INTEGER PRIMARY KEY, v);"
                               "CREATE TABLE u(id INTEGER PRIMARY KEY, v);";
    make("new", schema + "INSERT INTO t VALUES(1,'new'); INSERT INTO u VALUES(1,'new'),(2,'new')");
    make("old", schema + "INSERT INTO t VALUES(5,'old'); INSERT INTO u VALUES(2,'old'),(3,'old')");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT * FROM t"), ElementsAre("1|new", "5|old"));
    EXPECT_THAT(query("out", "SELECT * FROM u"), ElementsAre("2|old", "3|old"));
}

TEST_F(database_merge, key_counters_are_carried_over) {
    const std::string schema = "CREATE TABLE t(id INTEGER PRIMARY KEY AUTOINCREMENT, v);"
                               "CREATE TABLE u(id INTEGER PRIMARY KEY AUTOINCREMENT);"
                               "CREATE TABLE w(id INTEGER PRIMARY KEY AUTOINCREMENT);";
    make("new", schema + "INSERT INTO w VALUES(500)");
    make("old",
         schema + "INSERT INTO t VALUES(1,'a'),(90,'b'); DELETE FROM t WHERE id = 90;"
                  "INSERT INTO u VALUES(40); DELETE FROM u; INSERT INTO w VALUES(7)");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT name, seq FROM sqlite_sequence ORDER BY name"),
                ElementsAre("t|90", "u|40", "w|500"));
    database(path("out")).run("INSERT INTO t(v) VALUES('next')");
    EXPECT_THAT(query("out", "SELECT max(id) FROM t"), ElementsAre("91"));
}

TEST_F(database_merge, settings_of_the_new_database_hold) {
    make("new", "PRAGMA user_version = 12; PRAGMA page_size = 1024; CREATE TABLE t(a)");
    make("old",
         "PRAGMA user_version = 3; PRAGMA page_size = 8192; CREATE TABLE t(a);"
         "INSERT INTO t VALUES(randomblob(20000))");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "PRAGMA user_version"), ElementsAre("12"));
    EXPECT_THAT(query("out", "SELECT length(a) FROM t"), ElementsAre("20000"));
}

TEST_F(database_merge, permissions_of_a_replaced_output_stay) {
    make("new", "CREATE TABLE t(a)");
    make("old", "CREATE TABLE t(a)");
    ASSERT_EQ(chmod(path("new").c_str(), 0640), 0);
    ASSERT_EQ(chmod(path("old").c_str(), 0600), 0);
    ASSERT_EQ(merge(), 0);
    ASSERT_EQ(merge("old"), 0);
    struct stat info;
    ASSERT_EQ(stat(path("out").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    ASSERT_EQ(stat(path("old").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
}

TEST_F(database_merge, write_ahead_logs_are_read_and_none_is_left) {
    make("new", "PRAGMA journal_mode = WAL; CREATE TABLE t(a)");
    make("old", "PRAGMA journal_mode = WAL; CREATE TABLE t(a); INSERT INTO t VALUES(1)");
    database open(path("old")); // its log stays while it is open
    open.run("INSERT INTO t VALUES(2)");
    ASSERT_TRUE(std::filesystem::exists(path("old-wal")));
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT a FROM t"), ElementsAre("1", "2"));
    EXPECT_THAT(query("out", "PRAGMA journal_mode"), ElementsAre("delete"));
    EXPECT_FALSE(std::filesystem::exists(path("out-wal")));
}

// Leaves a database as a process killed in the middle of a transaction does: journal on the disk,
// some pages already overwritten.
void leave_hot_journal(const std::string &name) {
    const pid_t child = fork();
    if (child == 0) {
        sqlite3 *db = nullptr;
        sqlite3_open(name.c_str(), &db);
        sqlite3_exec(db,
                     "PRAGMA cache_size = 1; PRAGMA cache_spill = 1; BEGIN;"
                     "CREATE TABLE uncommitted(a);" // so that the first page is in the journal
                     "UPDATE t SET a = a || 'uncommitted', pad = zeroblob(3000);",
                     nullptr,
                     nullptr,
                     nullptr);
        (void)raise(SIGKILL);
    }
    int status = 0;
    (void)waitpid(child, &status, 0);
}

constexpr const char *padded_rows =
    "CREATE TABLE t(a, pad);"
    "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 50)"
    " INSERT INTO t SELECT 'row' || i, randomblob(3000) FROM n;";

TEST_F(database_merge, half_done_transaction_of_the_old_database_is_rolled_back) {
    make("new", "CREATE TABLE t(a)");
    make("old", padded_rows);
    const std::string sound = read(path("old"));
    leave_hot_journal(path("old"));
    ASSERT_TRUE(std::filesystem::exists(path("old-journal")));
    ASSERT_NE(read(path("old")), sound);
    ASSERT_EQ(merge("old"), 0);
    EXPECT_THAT(query("old",
                      "SELECT count(*) FROM t WHERE a GLOB 'row[0-9]*'"
                      " AND a NOT LIKE '%uncommitted'"),
                ElementsAre("50"));
    EXPECT_THAT(names(), ElementsAre("new", "old"));
}

TEST_F(database_merge, journal_of_a_replaced_output_is_not_played_back_into_the_result) {
    make("new", "CREATE TABLE t(a)");
    make("old", "CREATE TABLE t(a); INSERT INTO t VALUES('kept')");
    make("out", padded_rows);
    leave_hot_journal(path("out"));
    ASSERT_TRUE(std::filesystem::exists(path("out-journal")));
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT a FROM t"), ElementsAre("kept"));
    EXPECT_THAT(query("out", "PRAGMA integrity_check"), ElementsAre("ok"));

    // Nor that of an output which has gone meanwhile.
    make("out2", padded_rows);
    leave_hot_journal(path("out2"));
    std::filesystem::remove(path("out2"));
    ASSERT_EQ(merge("out2"), 0);
    EXPECT_THAT(query("out2", "SELECT a FROM t"), ElementsAre("kept"));
    EXPECT_THAT(names(), ElementsAre("new", "old", "out", "out2"));
}

TEST_F(database_merge, output_that_is_no_database_is_replaced) {
    make("new", "CREATE TABLE t(a)");
    make("old", "CREATE TABLE t(a)");
    write(path("out"), std::string(5000, 'x'));
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT name FROM sqlite_schema"), ElementsAre("t"));
}

TEST_F(database_merge, empty_old_database_carries_nothing) {
    make("new", "CREATE TABLE t(a)");
    write(path("old"), "");
    ASSERT_EQ(merge(), 0);
    EXPECT_THAT(query("out", "SELECT * FROM t"), IsEmpty());
}

TEST_F(database_merge, missing_files_are_refused) {
    make("new", "CREATE TABLE t(a)");
    expect_refused();
    make("old", "CREATE TABLE t(a)");
    std::filesystem::remove(path("new"));
    expect_refused();
    expect_refused("old");
    make("new", "CREATE TABLE t(a)");
    expect_refused("no/folder/out");
}

TEST_F(database_merge, null_and_special_paths_are_refused) {
    make("new", "CREATE TABLE t(a)");
    make("old", "CREATE TABLE t(a)");
    const std::string fresh = path("new");
    const std::string old = path("old");
    const std::string out = path("out");
    EXPECT_EQ(ktsqlite3_merge(nullptr, old.c_str(), out.c_str()), -1);
    EXPECT_EQ(ktsqlite3_merge(fresh.c_str(), nullptr, out.c_str()), -1);
    EXPECT_EQ(ktsqlite3_merge(fresh.c_str(), old.c_str(), nullptr), -1);
    for (const char *special : {"", ":memory:"}) {
        EXPECT_EQ(ktsqlite3_merge(fresh.c_str(), special, out.c_str()), -1);
        EXPECT_EQ(ktsqlite3_merge(special, old.c_str(), out.c_str()), -1);
    }
    EXPECT_EQ(ktsqlite3_merge(fresh.c_str(), path_.c_str(), out.c_str()), -1);
    EXPECT_THAT(names(), ElementsAre("new", "old"));
}

TEST_F(database_merge, file_that_is_no_database_is_refused) {
    make("new", "CREATE TABLE t(a)");
    write(path("old"), std::string(10000, 'x'));
    write(path("out"), "as it was");
    expect_refused();
    expect_refused("old");
    std::filesystem::rename(path("old"), path("garbage"));
    std::filesystem::rename(path("new"), path("old"));
    std::filesystem::rename(path("garbage"), path("new"));
    expect_refused();
}

TEST_F(database_merge, damaged_old_database_is_refused) {
    make("new", "CREATE TABLE t(a, pad)");
    make("old", padded_rows);
    std::string text = read(path("old"));
    ASSERT_GT(text.size(), 30 * 4096u);
    std::fill_n(text.begin() + 4096, 8192, '\x5a'); // root of the table and a leaf
    write(path("old"), text);
    expect_refused();
    expect_refused("old");
}

TEST_F(database_merge, damaged_new_database_is_refused) {
    make("new", padded_rows);
    make("old", "CREATE TABLE t(a)");
    std::string text = read(path("new"));
    std::fill_n(text.begin() + 4096, 8192, '\x5a');
    write(path("new"), text);
    expect_refused("old");
}

TEST_F(database_merge, pipe_is_refused_without_waiting_for_its_other_end) {
    make("new", "CREATE TABLE t(a)");
    ASSERT_EQ(mkfifo(path("pipe").c_str(), 0600), 0);
    const std::string fresh = path("new");
    const std::string pipe = path("pipe");
    EXPECT_EQ(ktsqlite3_merge(fresh.c_str(), pipe.c_str(), path("out").c_str()), -1);
    EXPECT_EQ(ktsqlite3_merge(pipe.c_str(), fresh.c_str(), path("out").c_str()), -1);
    EXPECT_THAT(names(), ElementsAre("new", "pipe"));
}

TEST_F(database_merge, old_database_cut_short_is_refused) {
    make("new", "CREATE TABLE t(a, pad)");
    make("old", padded_rows);
    std::filesystem::resize_file(path("old"), 20 * 4096);
    expect_refused("old");
}

TEST_F(database_merge, index_that_misses_a_row_is_refused) {
    make("new", "CREATE TABLE t(a)");
    make("old",
         "CREATE TABLE t(a); CREATE INDEX i ON t(a); INSERT INTO t VALUES(1),(2);"
         "PRAGMA writable_schema = ON;"
         "UPDATE sqlite_schema SET sql = 'CREATE INDEX i ON t(a) WHERE a > 1'"
         " WHERE name = 'i'");
    expect_refused("old");
}

TEST_F(database_merge, rows_that_the_new_keys_do_not_allow_are_refused) {
    make("new", "CREATE TABLE t(a UNIQUE)");
    make("old", "CREATE TABLE t(a); INSERT INTO t VALUES(1),(1)");
    expect_refused("old");
    make("new", "DROP TABLE t; CREATE TABLE t(a, b NOT NULL)");
    expect_refused("old");
}

TEST_F(database_merge, failure_after_some_tables_changes_nothing) {
    make("new", "CREATE TABLE a(v); CREATE TABLE b(v UNIQUE); CREATE TABLE c(v)");
    make("old",
         "CREATE TABLE a(v); CREATE TABLE b(v); CREATE TABLE c(v);"
         "INSERT INTO a VALUES(1); INSERT INTO b VALUES(1),(1); INSERT INTO c VALUES(1)");
    make("out", "CREATE TABLE before(v)");
    expect_refused();
}

TEST_F(database_merge, disk_that_fills_up_changes_nothing) {
    make("new", "CREATE TABLE t(a, pad)");
    make("old", padded_rows);
    const auto old_handler = signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    for (const rlim_t limit : {1000, 8192, 50000}) {
        const rlimit small = {limit, before.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
        expect_refused("old");
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    }
    (void)signal(SIGXFSZ, old_handler);
}

TEST_F(database_merge, many_rows) {
    make("new", "CREATE TABLE t(id INTEGER PRIMARY KEY, a, b DEFAULT 1)");
    make("old",
         "CREATE TABLE t(id INTEGER PRIMARY KEY, a);"
         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000)"
         " INSERT INTO t SELECT i * 3, 'row' || i FROM n");
    ASSERT_EQ(merge("old"), 0);
    EXPECT_THAT(query("old", "SELECT count(*), sum(id), sum(b), max(a) FROM t"),
                ElementsAre("20000|600030000|20000|row9999"));
}

} // namespace
