#include "config/authorizer.h"
#include "config/config_fixture.h"

namespace {

/** A connection to the working copy as requests have it. */
class authorizer : public started_gateway {
protected:
    authorizer() : db_(can_proprietary_db_get()) { EXPECT_NE(db_, nullptr); }
    ~authorizer() override { EXPECT_EQ(can_proprietary_db_close(db_), 0); }

    std::string run(const std::string &sql) { return rows_of(db_, sql); }

    sqlite3 *db_;
};

TEST_F(authorizer, rows_of_the_five_tables_can_be_read_and_changed) {
    EXPECT_EQ(run("INSERT INTO interface_setting VALUES (3, 0, 3, 0, 0, 0)"), "");
    EXPECT_EQ(run("INSERT INTO device VALUES (1, 3, 'drive')"), "");
    EXPECT_EQ(run("INSERT INTO transactions (transactionId, deviceId) VALUES (1, 1)"), "");
    EXPECT_EQ(run("INSERT INTO frame VALUES (1, 1, 0x181, 8, 1)"), "");
    EXPECT_EQ(run("INSERT INTO block (blockId, frameId) VALUES (1, 1)"), "");
    for (const char *table : {"interface_setting", "device", "transactions", "frame", "block"}) {
        const std::string name = table;
        EXPECT_EQ(run("SELECT count(*) FROM " + name), name == "interface_setting" ? "3" : "1");
        EXPECT_EQ(run("UPDATE " + name + " SET rowid = rowid"), "") << name;
    }
    EXPECT_EQ(run("SELECT deviceName, sum(tagSize) FROM device JOIN transactions USING (deviceId) "
                  "JOIN frame USING (transactionId) JOIN block USING (frameId) GROUP BY deviceId "
                  "HAVING count(*) > 0"),
              "drive|1");
}

TEST_F(authorizer, a_delete_takes_the_children_along) {
    ASSERT_EQ(run("INSERT INTO device VALUES (1, 1, 'drive');"
                  "INSERT INTO transactions (transactionId, deviceId) VALUES (1, 1);"
                  "INSERT INTO frame VALUES (1, 1, 0x181, 8, 1);"
                  "INSERT INTO block (blockId, frameId) VALUES (1, 1);"
                  "DELETE FROM interface_setting"),
              "");
    for (const char *table : {"interface_setting", "device", "transactions", "frame", "block"}) {
        EXPECT_EQ(run(std::string("SELECT * FROM ") + table), "") << table;
    }
}

TEST_F(authorizer, the_triggers_of_the_schema_run) {
    std::string sql;
    for (int id = 1; id <= 255; id++) {
        sql += "INSERT INTO device VALUES (" + std::to_string(id) + ", 1, 'd');";
    }
    EXPECT_EQ(run(sql), "");
    EXPECT_EQ(run("INSERT INTO device VALUES (0, 1, 'd')"), "error: device is full");
}

TEST_F(authorizer, a_transaction_can_be_begun_committed_and_rolled_back) {
    EXPECT_EQ(run("BEGIN TRANSACTION; INSERT INTO device VALUES (1, 1, 'a'); COMMIT"), "");
    EXPECT_EQ(run("BEGIN; DELETE FROM device; ROLLBACK"), "");
    EXPECT_EQ(run("SELECT deviceName FROM device"), "a");
}

TEST_F(authorizer, everything_else_is_refused_and_changes_nothing) {
    const std::string before = read(working_db_path());
    for (const char *sql :
         {"PRAGMA foreign_keys = OFF",
          "PRAGMA user_version",
          "PRAGMA writable_schema = ON",
          "PRAGMA journal_mode = OFF",
          "ATTACH ':memory:' AS other",
          "DETACH main",
          "CREATE TABLE other (x)",
          "CREATE TEMP TABLE other (x)",
          "CREATE TABLE copy AS SELECT * FROM device",
          "CREATE VIEW other AS SELECT 1",
          "CREATE TEMP VIEW other AS SELECT 1",
          "CREATE INDEX other ON device (deviceName)",
          "CREATE TRIGGER other AFTER INSERT ON device BEGIN SELECT 1; END",
          "CREATE VIRTUAL TABLE other USING fts5(x)",
          "ALTER TABLE device RENAME TO other",
          "ALTER TABLE device ADD COLUMN other",
          "DROP TABLE block",
          "DROP INDEX frame_canId",
          "DROP TRIGGER device_is_full",
          "SELECT * FROM sqlite_master",
          "SELECT * FROM sqlite_schema",
          "UPDATE sqlite_master SET sql = ''",
          "INSERT INTO sqlite_master VALUES (1, 2, 3, 4, 5)",
          "DELETE FROM sqlite_master",
          "SELECT * FROM pragma_table_info('device')",
          "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT "
          "i FROM n",
          "SAVEPOINT s",
          "REINDEX",
          "ANALYZE",
          "VACUUM",
          "VACUUM INTO '/tmp/kt-unit-copy'",
          "SELECT load_extension('/tmp/x.so')"}) {
        EXPECT_EQ(run(sql).rfind("error: ", 0), 0U) << sql << " " << run(sql);
    }
    EXPECT_EQ(read(working_db_path()), before);
    EXPECT_FALSE(exists("/tmp/kt-unit-copy"));
}

TEST_F(authorizer, a_table_of_another_name_is_out_of_reach) {
    execute(working_db_path(), "CREATE TABLE other (x); CREATE TABLE deviceX (x)");
    for (const char *sql : {"SELECT x FROM other",
                            "INSERT INTO other VALUES (1)",
                            "UPDATE other SET x = 1",
                            "DELETE FROM other",
                            "SELECT x FROM deviceX",
                            "INSERT INTO device SELECT 1, 1, x FROM other"}) {
        EXPECT_EQ(run(sql).rfind("error: ", 0), 0U) << sql;
    }
}

TEST_F(authorizer, other_connections_are_not_bound_by_it) {
    EXPECT_EQ(rows_of(working_db_path(), "CREATE TABLE other (x); DROP TABLE other"), "");
    const connection own = connect(working_db_path());
    allow_configuration_rows_only(own.get());
    EXPECT_EQ(rows_of(own.get(), "PRAGMA user_version"), "error: not authorized");
}

} // namespace
