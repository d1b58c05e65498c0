#ifndef KT_TESTS_BENCH_STATEMENT_RECORD_H
#define KT_TESTS_BENCH_STATEMENT_RECORD_H

#include <string>
#include <vector>

/**
 * The statements that the program executes on connections opened while the object lives, one list
 * per connection, with their values, as texts. One object at a time; one thread.
 */
class statement_record {
public:
    statement_record();
    ~statement_record();
    statement_record(const statement_record &) = delete;
    statement_record &operator=(const statement_record &) = delete;

    /** What the last object recorded, until the next one. */
    [[nodiscard]] static const std::vector<std::vector<std::string>> &connections();
};

/**
 * Execute recorded statements on the same file and nothing else: open, then prepare, step through
 * every column of every row and finalize each, close.
 */
void replay(const std::string &path, const std::vector<std::vector<std::string>> &connections);

#endif
