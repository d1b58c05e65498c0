#include "bench_gateway.h"
#include "config/database_files.h"
#include "rest/handlers.h"
#include "statement_record.h"

#include <kt/rest.h>

#include <array>
#include <benchmark/benchmark.h>
#include <memory>
#include <string>

/*
 * What a request costs beyond its SQL: a device with 16 transactions, 24 frames and 96 tags is read
 * and created by the handlers as the server calls them; by the very statements that they execute,
 * as texts on a connection of their own, with nothing around them; and, as the least that can be
 * thought of, by such statements prepared beforehand on an open connection, in one transaction. All
 * on the same file.
 *
 * The argument is the number of such devices that the working copy holds: 1, and 32, which is the
 * most that fits.
 */

namespace {

constexpr int transactions_per_device = 16;
constexpr int tags_per_frame = 4;

size_t g_answer_bytes = 0;

bool is_request(int transaction) {
    return transaction % 2 == 1;
}

std::string tag_json(int tag) {
    return R"({"blockType":0,"tagName":"value-)" + std::to_string(tag) +
           R"(","tagType":6,"tagSize":2,"access":"ro","startOffset":)" + std::to_string(2 * tag) +
           R"(,"swap":0,"fpData":"0000","scalingFunc":)" +
           (tag == 0 ? R"(1,"interceptSlope":2,"interceptOffset":-10})" : "0}");
}

std::string frame_json(int canId) {
    std::string text = R"({"canId":)" + std::to_string(canId) + R"(,"dataLength":8,"blockList":[)";
    for (int tag = 0; tag < tags_per_frame; tag++) {
        text += (tag == 0 ? "" : ",") + tag_json(tag);
    }
    return text + "]}";
}

std::string transaction_json(int index) {
    std::string text = R"({"transactionEnable":true,"transactionName":"exchange-)" +
                       std::to_string(index) + R"(","transactionType":)" +
                       (is_request(index) ? "2" : "0") +
                       R"(,"trigger":0,"cyclicInterval":1000,"fpFunc":0,)";
    text += is_request(index) ? R"("responseTimeout":100,"timeoutRetry":2,)"
                              : R"("triggerByRTR":false,)";
    text += R"("frameList":[)" + frame_json(256 + 2 * index);
    return text + (is_request(index) ? "," + frame_json(257 + 2 * index) : "") + "]}";
}

const std::string &device_json() {
    static const std::string text = [] {
        std::string list;
        for (int i = 0; i < transactions_per_device; i++) {
            list += (i == 0 ? "" : ",") + transaction_json(i);
        }
        return R"({"portId":1,"deviceName":"drive","transactionList":[)" + list + "]}";
    }();
    return text;
}

void post_device() {
    const std::string &body = device_json();
    const int status = can_proprietary_rest_post_device_config(
        "/CAN-proprietary/device", body.c_str(), body.size());
    if (status != 201) {
        give_up("POST answered " + std::to_string(status));
    }
}

void delete_last_device() {
    bench_gateway::execute(
        "DELETE FROM device WHERE deviceId = (SELECT MAX(deviceId) FROM device)");
}

void fill(int devices) {
    bench_gateway::execute("DELETE FROM device");
    for (int i = 0; i < devices; i++) {
        post_device();
    }
}

/** A prepared statement on its way through rows and keys. */
class prepared {
public:
    prepared(sqlite3 *db, const char *sql) : db_(db) {
        if (sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement_, nullptr) !=
            SQLITE_OK) {
            give_up(std::string(sql) + ": " + sqlite3_errmsg(db));
        }
    }
    prepared(const prepared &) = delete;
    prepared &operator=(const prepared &) = delete;
    ~prepared() { (void)sqlite3_finalize(statement_); }

    prepared &bind(int position, int value) {
        (void)sqlite3_bind_int(statement_, position, value);
        return *this;
    }
    prepared &bind(int position, const char *value) {
        (void)sqlite3_bind_text(statement_, position, value, -1, SQLITE_STATIC);
        return *this;
    }

    /** Hand every column of every row over, as text or number, and the first to visit. */
    template <typename Visit>
    void each(Visit visit) {
        int result = sqlite3_step(statement_);
        for (; result == SQLITE_ROW; result = sqlite3_step(statement_)) {
            for (int i = 0; i < sqlite3_column_count(statement_); i++) {
                read(i);
            }
            visit(sqlite3_column_int(statement_, 0));
        }
        if (result != SQLITE_DONE) {
            give_up(sqlite3_errmsg(db_));
        }
        (void)sqlite3_reset(statement_);
    }
    int run() {
        int last = 0;
        each([&last](int key) { last = key; });
        return last;
    }

private:
    void read(int position) {
        switch (sqlite3_column_type(statement_, position)) {
        case SQLITE_TEXT:
            benchmark::DoNotOptimize(sqlite3_column_text(statement_, position));
            break;
        case SQLITE_FLOAT:
            benchmark::DoNotOptimize(sqlite3_column_double(statement_, position));
            break;
        default:
            benchmark::DoNotOptimize(sqlite3_column_int(statement_, position));
        }
    }

    sqlite3 *db_;
    sqlite3_stmt *statement_ = nullptr;
};

/** The SELECTs of a device, in the order of the read operations. */
struct device_selects {
    explicit device_selects(sqlite3 *db)
        : device(db, "SELECT * FROM device WHERE deviceId = ?"),
          transactions(db, "SELECT * FROM transactions WHERE deviceId = ?"),
          transaction(db, "SELECT * FROM transactions WHERE transactionId = ?"),
          frames(db, "SELECT * FROM frame WHERE transactionId = ?"),
          frame(db, "SELECT * FROM frame WHERE frameId = ?"),
          blocks(db, "SELECT * FROM block WHERE frameId = ?") {}

    int run(int deviceId) {
        int blocks_read = 0;
        (void)device.bind(1, deviceId).run();
        transactions.bind(1, deviceId).each([this, &blocks_read](int transactionId) {
            (void)transaction.bind(1, transactionId).run();
            frames.bind(1, transactionId).each([this, &blocks_read](int frameId) {
                (void)frame.bind(1, frameId).run();
                blocks.bind(1, frameId).each([&blocks_read](int) { blocks_read++; });
            });
        });
        return blocks_read;
    }

    prepared device, transactions, transaction, frames, frame, blocks;
};

/** The key of a row just inserted, found as the write operations find it. */
struct last_row {
    last_row(sqlite3 *db, const std::string &table)
        : count(db, ("SELECT count(*) FROM " + table + " WHERE 1").c_str()),
          at(db, ("SELECT * FROM " + table + " LIMIT 1 OFFSET ?").c_str()) {}

    int key() { return at.bind(1, count.run() - 1).run(); }

    prepared count, at;
};

/** The statements that create a device, in the order of the write operations. */
struct device_inserts {
    explicit device_inserts(sqlite3 *db)
        : device(db, "INSERT INTO device (deviceName, portId) VALUES (?, ?)"),
          transaction_name(db,
                           "SELECT 1 FROM transactions WHERE transactionName = ? AND deviceId = ?"),
          transaction(
              db,
              "INSERT INTO transactions (deviceId, transactionEnable, TransactionName, "
              "TransactionType, triggerMode, cyclicinterval, fpFunc, fpTimeout, "
              "triggerByRTR, consumeToutEnable, consumeTimeout, timeoutRetry, "
              "responseTimeout) VALUES (?, 1, ?, ?, 0, 1000, 0, 60000, 0, 0, 10000, 2, 100)"),
          frame(db,
                "INSERT INTO frame (transactionId, canId, dataLength, frameType) VALUES (?, ?, 8, "
                "?)"),
          tag_name(db, "SELECT 1 FROM block WHERE tagName = ? AND frameId = ?"),
          block(db,
                "INSERT INTO block (frameId, blockType, startOffset, tagName, tagType, tagSize, "
                "access, swap, fpData, scalingFunc, interceptSlope, interceptOffset, "
                "pointSourceMin, pointSourceMax, pointTargetMin, pointTargetMax) VALUES (?, 0, ?, "
                "?, 6, 2, 'ro', 0, '0000', 0, 0, 1, 0, 1, 0, 1)"),
          last_device(db, "device"), last_transaction(db, "transactions"), last_frame(db, "frame"),
          last_block(db, "block") {}

    void run() {
        (void)device.bind(1, "drive").bind(2, 1).run();
        const int deviceId = last_device.key();
        for (int i = 0; i < transactions_per_device; i++) {
            insert_transaction(deviceId, i);
        }
    }

private:
    void insert_transaction(int deviceId, int index) {
        const std::string name = "exchange-" + std::to_string(index);
        (void)transaction_name.bind(1, name.c_str()).bind(2, deviceId).run();
        (void)transaction.bind(1, deviceId)
            .bind(2, name.c_str())
            .bind(3, is_request(index) ? 2 : 0)
            .run();
        const int transactionId = last_transaction.key();
        insert_frame(transactionId, 256 + 2 * index, is_request(index) ? 2 : 0);
        if (is_request(index)) {
            insert_frame(transactionId, 257 + 2 * index, 3);
        }
    }
    void insert_frame(int transactionId, int canId, int type) {
        (void)frame.bind(1, transactionId).bind(2, canId).bind(3, type).run();
        const int frameId = last_frame.key();
        for (int tag = 0; tag < tags_per_frame; tag++) {
            const std::string name = "value-" + std::to_string(tag);
            (void)tag_name.bind(1, name.c_str()).bind(2, frameId).run();
            (void)block.bind(1, frameId).bind(2, 2 * tag).bind(3, name.c_str()).run();
            (void)last_block.key();
        }
    }

    prepared device, transaction_name, transaction, frame, tag_name, block;
    last_row last_device, last_transaction, last_frame, last_block;
};

using connection = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;

connection open_working_copy() {
    return {open_like_the_service(working_db_path()), sqlite3_close};
}

void get_device() {
    const int status =
        can_proprietary_rest_get_device_config("/CAN-proprietary/device?deviceId=1", nullptr, 0);
    if (status != 200) {
        give_up("GET answered " + std::to_string(status));
    }
}

void get_handler(benchmark::State &state) {
    fill(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        get_device();
    }
    state.counters["answer_bytes"] = static_cast<double>(g_answer_bytes);
}

void get_texts(benchmark::State &state) {
    fill(static_cast<int>(state.range(0)));
    {
        const statement_record record;
        get_device();
    }
    for (auto _ : state) {
        replay(working_db_path(), statement_record::connections());
    }
}

void get_statements(benchmark::State &state) {
    fill(static_cast<int>(state.range(0)));
    const connection db = open_working_copy();
    device_selects selects(db.get());
    for (auto _ : state) {
        execute_on(db.get(), "BEGIN");
        if (selects.run(1) != 24 * tags_per_frame) {
            give_up("the statements found other rows");
        }
        execute_on(db.get(), "COMMIT");
    }
}

void post_handler(benchmark::State &state) {
    fill(static_cast<int>(state.range(0)) - 1);
    for (auto _ : state) {
        post_device();
        state.PauseTiming();
        delete_last_device();
        state.ResumeTiming();
    }
}

void post_texts(benchmark::State &state) {
    fill(static_cast<int>(state.range(0)) - 1);
    {
        const statement_record record;
        post_device();
    }
    delete_last_device(); // the next one gets the same keys
    for (auto _ : state) {
        replay(working_db_path(), statement_record::connections());
        state.PauseTiming();
        delete_last_device();
        state.ResumeTiming();
    }
}

void post_statements(benchmark::State &state) {
    fill(static_cast<int>(state.range(0)) - 1);
    for (auto _ : state) {
        state.PauseTiming();
        {
            const connection db = open_working_copy();
            device_inserts inserts(db.get());
            state.ResumeTiming();
            execute_on(db.get(), "BEGIN");
            inserts.run();
            execute_on(db.get(), "COMMIT");
            state.PauseTiming();
        }
        delete_last_device();
        state.ResumeTiming();
    }
}

BENCHMARK(get_handler)->Arg(1)->Arg(32)->Unit(benchmark::kMicrosecond);
BENCHMARK(get_texts)->Arg(1)->Arg(32)->Unit(benchmark::kMicrosecond);
BENCHMARK(get_statements)->Arg(1)->Arg(32)->Unit(benchmark::kMicrosecond);
BENCHMARK(post_handler)->Arg(1)->Arg(32)->Unit(benchmark::kMicrosecond);
BENCHMARK(post_texts)->Arg(1)->Arg(32)->Unit(benchmark::kMicrosecond);
BENCHMARK(post_statements)->Arg(1)->Arg(32)->Unit(benchmark::kMicrosecond);

} // namespace

/** Stands where the server takes an answer over: it copies it, too. */
extern "C" int __wrap_rest_write(const char *text, size_t length) {
    static std::string answer;
    answer.assign(text, length);
    g_answer_bytes = length;
    return REST_OK;
}

int main(int argc, char **argv) {
    const bench_gateway gateway;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
