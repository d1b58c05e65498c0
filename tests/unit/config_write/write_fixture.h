#ifndef KT_TESTS_WRITE_FIXTURE_H
#define KT_TESTS_WRITE_FIXTURE_H

#include "allocation_fault.h"
#include "config/config_fixture.h"
#include "config/write.h"

#include <climits>
#include <cstring>
#include <string>
#include <utility>

/**
 * A started gateway with two devices, three transactions with a frame each and two blocks, and a
 * connection in a transaction, as a request has it.
 */
class config_write : public started_gateway {
protected:
    config_write() {
        execute(
            working_db_path(),
            "PRAGMA foreign_keys = ON;"
            "INSERT INTO device VALUES (1, 1, 'drive'), (2, 2, 'sensor');"
            "INSERT INTO transactions (transactionId, deviceId, transactionName) VALUES"
            " (1, 1, 'state'), (2, 1, 'command'), (3, 2, 'state');"
            "INSERT INTO frame VALUES (1, 1, 385, 8, 1), (2, 2, 513, 8, 0), (3, 3, 801, 0, 1);"
            "INSERT INTO block (blockId, frameId, tagName) VALUES (1, 1, 'speed'), (2, 2, 'x')");
        begin();
    }
    ~config_write() override { end(0); }

    void begin() {
        db = can_proprietary_db_get();
        ASSERT_NE(db, nullptr);
        can_proprietary_db_start_set_db(db);
    }

    void end(int commit) {
        if (db != nullptr) {
            EXPECT_EQ(can_proprietary_db_end_set_db(db, commit), 0);
        }
        db = nullptr;
    }

    /** What the request's own connection sees. */
    std::string seen(const std::string &sql) { return rows_of(db, sql); }

    /** What was committed. */
    static std::string committed(const std::string &sql) { return rows_of(working_db_path(), sql); }

    /** Every row of every table that the request's connection sees. */
    std::string everything() {
        std::string all;
        for (const char *table :
             {"interface_setting", "device", "transactions", "frame", "block"}) {
            all += seen(std::string("SELECT * FROM ") + table) + "\n";
        }
        return all;
    }

    /** Let no statement of the request write any more: another connection is about to commit. */
    void lock_out() {
        end(0);
        locker_ = connect(working_db_path());
        ASSERT_EQ(rows_of(locker_.get(), "BEGIN IMMEDIATE"), "");
        begin();
    }

    /** Let statements that read this column fail to prepare. */
    void forbid_reading(const char *table, const char *column) {
        forbidden_ = {table, column};
        const auto authorize = [](void *context,
                                  int action,
                                  const char *subject,
                                  const char *detail,
                                  const char * /*database*/,
                                  const char * /*trigger*/) {
            const auto &[table_name, column_name] = *static_cast<column_reference *>(context);
            const bool forbidden =
                action == SQLITE_READ && subject == table_name && detail == column_name;
            return forbidden ? SQLITE_DENY : SQLITE_OK;
        };
        EXPECT_EQ(sqlite3_set_authorizer(db, authorize, &forbidden_), SQLITE_OK);
    }

    sqlite3 *db = nullptr;

private:
    using column_reference = std::pair<std::string, std::string>;
    column_reference forbidden_;
    connection locker_;
};

/** Texts that must not leave their quotes, each with what the statement says of it. */
inline std::vector<std::string> texts_with_quotes() {
    return {"'",
            "o'clock",
            "x', 2), ('y",
            "x'); DROP TABLE device; --",
            "x'); DELETE FROM device; --",
            "' || (SELECT deviceName FROM device) || '",
            "''",
            "x'--",
            "x'/*",
            "x' UNION SELECT 1; COMMIT; --"};
}

/** Texts that look dangerous and are not. */
inline std::vector<std::string> plain_texts() {
    return {"a;b",
            "a--b",
            "/*",
            "*/",
            "\"",
            "a\"b",
            "%s%n%d",
            "\\",
            "DROP TABLE device",
            "\x01\x7f",
            "\xc3\xa9"};
}

constexpr const char *quote_message = "sqlite exec near \"'\": syntax error\n";

#endif
