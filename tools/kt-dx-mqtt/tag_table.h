#ifndef KT_DX_MQTT_TAG_TABLE_H
#define KT_DX_MQTT_TAG_TABLE_H

#include "quality.h"

#include <kt/dx_client.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

/** A tag with its value as it is published: a copy, valid for good. */
struct tag_snapshot {
    std::string name;
    int type = 0;
    size_t size = 0; // bytes of the value
    int mode = 0;    // dx_tag_mode
    uint8_t value[DX_VALUE_MAX] = {};
    uint32_t sequence = 0; // number of writes
    int64_t time_ms = 0;   // of the value, UTC, milliseconds since 1970
    tag_quality quality;
    std::string device;   // name of the device, empty when the tag belongs to none
    uint32_t index = 0;   // in the table
    bool removed = false; // the service runs without this tag: take back what was published
};

/** What the configuration of the service adds to a tag. */
struct tag_circumstances {
    std::string device;
    std::string transaction;
    std::string tag;
    bool is_request = false; // of the frame that is sent by a request transaction
    int64_t answer_ms = 0;   // is_request: the response is there or given up after this
    bool sent_on_change = false;
    int port = 0;               // from 1
    int64_t max_age_ms = 0;     // consume timeout with its tolerance, 0 for none
    int64_t fault_after_ms = 0; // fault protection, 0 for none
    uint8_t fault_value[DX_VALUE_MAX] = {};
    std::vector<std::string> response_tags; // is_request: names of tags the response writes
};

using circumstances_map = std::unordered_map<std::string, tag_circumstances>;

/** The two clocks, read together. */
struct clock_pair {
    int64_t monotonic_ms = 0; // as the store dates values
    int64_t utc_ms = 0;
};

clock_pair read_clocks();

/**
 * Every tag that was ever seen, with its last value and a mark "to publish". A tag that changes
 * faster than it can be published keeps its place in the queue and its latest value, so the queue
 * never holds more than one value per tag.
 *
 * THREAD SAFETY. All calls from any thread; one mutex, held for one call, never while the store or
 * the broker is talked to.
 */
class tag_table {
public:
    tag_table();
    ~tag_table();
    tag_table(const tag_table &) = delete;
    tag_table &operator=(const tag_table &) = delete;

    /** Take over what the store says of a tag. A tag seen for the first time is added. */
    void update(const dx_tag_info &info, const dx_sample &sample, const clock_pair &now);

    /** A complete list follows as calls of update(), ended by end_list(). */
    void begin_list();

    /**
     * Tags that the list did not bring are bad. Those whose service is there without them (it has
     * tags with the same first part of the name) are removed after removal_ms.
     */
    void end_list(const clock_pair &now);

    /** The store is gone or another one: every value is bad until it is updated. */
    void service_down(const clock_pair &now);

    /** Judge qualities that depend on time. Call a few times in a second. */
    void tick(const clock_pair &now);

    /** Replace what is known from the configuration. */
    void set_circumstances(circumstances_map map, const clock_pair &now);

    /** Next tag to publish, marked as under way; empty when there is none. */
    std::optional<tag_snapshot> take();

    /** The tag was published: it may be taken again if it has changed meanwhile. */
    void published(uint32_t index);

    /** Nothing is under way any more and everything is to be published. */
    void publish_all();

    std::optional<tag_snapshot> find(std::string_view name) const;
    bool knows(std::string_view name) const;
    std::optional<tag_circumstances> circumstances(std::string_view name) const;

    size_t size() const;
    size_t waiting() const;      // tags marked for publication
    uint64_t conflated() const;  // values that were replaced before they were published
    uint64_t generation() const; // goes up when a tag comes, goes or is described anew
    bool service_alive() const;  // at least one tag has a living provider

    /** First parts of the names of tags that have a living provider. */
    std::set<std::string> services() const;

private:
    struct known_tag;
    struct known_device;
    struct slot_entry {
        uint32_t version = 0;
        uint32_t index = 0;
    };

    known_tag &find_or_add(const dx_tag_info &info);
    known_tag &add(const char *name);
    static void describe(known_tag &tag, const dx_tag_info &info);
    void take_sample(known_tag &tag, const dx_sample &sample, const clock_pair &now);
    void add_device(known_tag &status);
    void assign_device(known_tag &tag);
    void attach_circumstances(known_tag &tag) const;
    void update_device(known_tag &status, const clock_pair &now);
    void judge_and_mark(known_tag &tag, const clock_pair &now);
    static bool holds_fault_value(const known_tag &tag, const clock_pair &now);
    bool judge(known_tag &tag, const clock_pair &now) const;
    void lose(known_tag &tag, const clock_pair &now);
    void mark(known_tag &tag);
    void forget(known_tag &tag);
    tag_snapshot copy(const known_tag &tag) const;

    mutable std::mutex mutex_;                     // guards all below
    std::vector<std::unique_ptr<known_tag>> tags_; // by index; empty where a tag was forgotten
    std::vector<uint32_t> free_indices_;
    std::vector<std::unique_ptr<known_device>> devices_;
    std::unordered_map<std::string, uint32_t> by_name_;
    std::unordered_map<std::string, uint32_t> by_prefix_; // devices; a prefix ends with "/"
    std::vector<slot_entry> slots_;                       // by slot of the store
    circumstances_map circumstances_;
    std::deque<uint32_t> queue_;
    uint64_t conflated_ = 0;
    uint64_t generation_ = 0;
    uint32_t list_number_ = 0;
    size_t present_ = 0;
};

constexpr int64_t removal_ms = 5000; // longer than a restart of the ports takes

#endif
