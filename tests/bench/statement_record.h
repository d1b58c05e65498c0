#ifndef KT_TESTS_BENCH_STATEMENT_RECORD_H
#define KT_TESTS_BENCH_STATEMENT_RECORD_H

#include <string>
#include <vector>

/** A statement as it was prepared, and with its values in their places. */
struct recorded_statement {
    std::string sql;
    std::string expanded;
};

using recorded_connection = std::vector<recorded_statement>;

/**
 * The statements that the program executes on connections opened while the object lives, one list
 * per connection. One object at a time; one thread.
 */
class statement_record {
public:
    statement_record();
    ~statement_record();
    statement_record(const statement_record &) = delete;
    statement_record &operator=(const statement_record &) = delete;

    /** What the last object recorded, until the next one. */
    [[nodiscard]] static const std::vector<recorded_connection> &connections();
};

/** Statements beside the PRAGMAs and the BEGIN and COMMIT that come with a connection. */
size_t count_statements(const std::vector<recorded_connection> &connections);

/** The same statements on one connection, which begins once. */
std::vector<recorded_connection> merge(const std::vector<recorded_connection> &connections);

/**
 * Execute recorded statements on a file and nothing else: open, then bind, step through every
 * column of every row, close. A text is prepared once per connection, however often it is executed.
 */
void replay(const std::string &path, const std::vector<recorded_connection> &connections);

#endif
