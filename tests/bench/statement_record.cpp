#include "statement_record.h"

#include "bench_gateway.h"

#include <sqlite3.h>
#include <unordered_map>

namespace {

std::vector<recorded_connection> g_connections;

int note_statement(unsigned /*type*/, void *list, void *statement, void *sql) {
    const std::string text = static_cast<const char *>(sql);
    if (!text.starts_with("--")) { // what a trigger does belongs to its statement
        char *expanded = sqlite3_expanded_sql(static_cast<sqlite3_stmt *>(statement));
        g_connections[reinterpret_cast<size_t>(list)].push_back({text, expanded});
        sqlite3_free(expanded);
    }
    return 0;
}

int note_connection(sqlite3 *db, char ** /*error*/, const struct sqlite3_api_routines * /*api*/) {
    g_connections.emplace_back();
    void *list = reinterpret_cast<void *>(g_connections.size() - 1);
    return sqlite3_trace_v2(db, SQLITE_TRACE_STMT, note_statement, list);
}

bool comes_with_connection(const recorded_statement &statement) {
    return statement.sql.starts_with("PRAGMA") || statement.sql.starts_with("BEGIN") ||
           statement.sql.starts_with("COMMIT") || statement.sql.starts_with("ROLLBACK");
}

void bind(sqlite3_stmt *statement, int position, const std::string &value) {
    if (value.starts_with('\'')) {
        const std::string text = value.substr(1, value.size() - 2);
        (void)sqlite3_bind_text(
            statement, position, text.c_str(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
    } else {
        (void)sqlite3_bind_int(statement, position, std::stoi(value));
    }
}

/** The values are what stands in the one text where the other one has its question marks. */
void bind_values(sqlite3_stmt *statement, const recorded_statement &recorded) {
    size_t from = 0;
    size_t at = 0;
    for (int i = 1; i <= sqlite3_bind_parameter_count(statement); i++) {
        const size_t mark = recorded.sql.find('?', from);
        at += mark - from;
        const size_t next = recorded.sql.find('?', mark + 1);
        const std::string between = recorded.sql.substr(mark + 1, next - mark - 1);
        const size_t end =
            between.empty() ? std::string::npos : recorded.expanded.find(between, at);
        bind(statement, i, recorded.expanded.substr(at, end - at));
        from = mark + 1;
        at = end;
    }
}

volatile double g_read = 0; // so that nobody leaves the reading out

void read_row(sqlite3_stmt *row) {
    for (int i = 0; i < sqlite3_column_count(row); i++) {
        switch (sqlite3_column_type(row, i)) {
        case SQLITE_TEXT:
            g_read = static_cast<double>(sqlite3_column_text(row, i)[0]);
            break;
        case SQLITE_FLOAT:
            g_read = sqlite3_column_double(row, i);
            break;
        default:
            g_read = sqlite3_column_int(row, i);
        }
    }
}

class replayed_connection {
public:
    explicit replayed_connection(const std::string &path) {
        constexpr int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_FULLMUTEX;
        if (sqlite3_open_v2(path.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
            give_up("cannot open " + path);
        }
    }
    replayed_connection(const replayed_connection &) = delete;
    replayed_connection &operator=(const replayed_connection &) = delete;
    ~replayed_connection() {
        for (const auto &[sql, statement] : statements_) {
            (void)sqlite3_finalize(statement);
        }
        (void)sqlite3_close(db_);
    }

    void execute(const recorded_statement &recorded) {
        if (recorded.sql.starts_with("ROLLBACK") && sqlite3_get_autocommit(db_) != 0) {
            return; // nor does the handler look at its failure
        }
        sqlite3_stmt *&statement = statements_[recorded.sql];
        int result = SQLITE_OK;
        if (statement == nullptr) {
            result = sqlite3_prepare_v2(db_, recorded.sql.c_str(), -1, &statement, nullptr);
        }
        if (result == SQLITE_OK) {
            bind_values(statement, recorded);
            for (result = sqlite3_step(statement); result == SQLITE_ROW;
                 result = sqlite3_step(statement)) {
                read_row(statement);
            }
        }
        if (result != SQLITE_DONE) {
            give_up(recorded.expanded + ": " + sqlite3_errmsg(db_));
        }
        (void)sqlite3_reset(statement);
    }

private:
    sqlite3 *db_ = nullptr;
    std::unordered_map<std::string, sqlite3_stmt *> statements_;
};

using entry_point = void (*)();

} // namespace

statement_record::statement_record() {
    g_connections.clear();
    if (sqlite3_auto_extension(reinterpret_cast<entry_point>(note_connection)) != SQLITE_OK) {
        give_up("statements cannot be recorded");
    }
}

statement_record::~statement_record() {
    sqlite3_reset_auto_extension();
}

const std::vector<recorded_connection> &statement_record::connections() {
    return g_connections;
}

size_t count_statements(const std::vector<recorded_connection> &connections) {
    size_t count = 0;
    for (const recorded_connection &connection : connections) {
        for (const recorded_statement &statement : connection) {
            count += comes_with_connection(statement) ? 0 : 1;
        }
    }
    return count;
}

std::vector<recorded_connection> merge(const std::vector<recorded_connection> &connections) {
    std::vector<recorded_connection> merged;
    for (const recorded_connection &connection : connections) {
        if (merged.empty()) {
            merged.push_back(connection);
            continue;
        }
        for (const recorded_statement &statement : connection) {
            if (!comes_with_connection(statement)) {
                merged.back().push_back(statement);
            }
        }
    }
    return merged;
}

void replay(const std::string &path, const std::vector<recorded_connection> &connections) {
    for (const recorded_connection &statements : connections) {
        replayed_connection connection(path);
        for (const recorded_statement &statement : statements) {
            connection.execute(statement);
        }
    }
}
