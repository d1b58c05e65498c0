#ifndef KT_DX_MQTT_WRITES_H
#define KT_DX_MQTT_WRITES_H

#include "set_request.h"
#include "statistics.h"
#include "tag_client.h"
#include "tag_table.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

/**
 * What became of a write. accepted may be followed by one more result for a tag of a request
 * transaction: completed, failed, timed_out, superseded or unknown.
 */
enum class write_outcome {
    accepted,   // the tag has the value
    refused,    // nothing was written; reason says why
    superseded, // a newer write of the same tag came before this one had its effect
    completed,  // request transaction: the response has come
    failed,     // request transaction: the response was wrong or the frame could not be sent
    timed_out,  // request transaction: no response
    unknown     // request transaction: the service did not say in time
};

/** "accepted", "refused", "superseded", "completed", "failed", "timed_out", "unknown" */
const char *outcome_text(write_outcome outcome);

struct write_result {
    std::string tag;
    std::string id; // the client's own JSON text (a string or a number), empty when it gave none
    write_outcome outcome = write_outcome::refused;
    std::string reason;  // empty when there is nothing to add
    int64_t time_ms = 0; // UTC, milliseconds since 1970
};

/** What the service reports about a transaction, where it can be asked. */
struct transaction_report {
    bool known = false;
    int state = 255; // 0 success, 1 failed, 2 timeout, 255 none yet
    uint32_t failed_count = 0;
    uint64_t number = 0; // of the report; a greater one is a newer one
};

struct write_settings {
    size_t queue_length = 0; // writes that wait and requests whose outcome is awaited, each
    std::function<void(write_result)> done; // called on the thread of the writes
    /** Last report of a transaction; asks for a newer one when fresh is set. May be empty. */
    std::function<transaction_report(const tag_circumstances &, bool fresh)> report;
};

/**
 * Writes tags, on a thread of its own ("mqtt-writes") with a client of the store of its own, in the
 * order in which they came. A write that waits while a newer one for its tag comes is superseded.
 */
class write_queue {
public:
    write_queue(tag_table &table, bridge_statistics &statistics, write_settings settings);
    ~write_queue(); // stops
    write_queue(const write_queue &) = delete;
    write_queue &operator=(const write_queue &) = delete;

    void start();
    /** What waits is refused. */
    void stop();

    /** A set message. Never blocks; a full queue refuses. Any thread. */
    void add(const std::string &tag, std::string_view payload);

    /** A value as it is, in no message's form; otherwise as add(). */
    void add_value(const std::string &tag, std::string_view value);

    /** The message was not sent to us now but kept by the broker: nobody may want it any more. */
    void refuse_retained(const std::string &tag, std::string_view payload);

private:
    struct awaited;
    struct pending {
        std::string tag;
        set_request request;
    };
    bool is_possible(const pending &write, std::string &error) const;
    void enqueue(const pending &write);
    void run();
    void execute(const pending &write);
    bool open_store();
    void await_outcome(const pending &write);
    void supersede_awaited(const std::string &tag);
    bool answered(const awaited &one) const;
    bool settle(awaited &one);
    void settle_all();
    /** Nothing more will be learned of the outcomes that are awaited. */
    void give_up(const char *reason);
    void tell(const pending &write, write_outcome outcome, std::string reason);
    void refuse(const pending &write, std::string reason);

    tag_table &table_;
    bridge_statistics &statistics_;
    write_settings settings_;
    std::mutex mutex_; // guards waiting_ and stop_
    std::condition_variable wake_;
    std::deque<pending> waiting_;
    bool stop_ = false;
    std::thread thread_;
    tag_client_ptr client_; // all below: thread of the writes
    std::vector<awaited> awaited_;
};

#endif
