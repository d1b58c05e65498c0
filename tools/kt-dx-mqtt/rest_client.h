#ifndef KT_DX_MQTT_REST_CLIENT_H
#define KT_DX_MQTT_REST_CLIENT_H

#include "settings.h"
#include "tag_table.h"
#include "writes.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

/** Diagnostics of one port: the member "data" of the service's answer, as it came. */
struct port_diagnostics {
    int port = 0;     // from 1
    std::string json; // one JSON object
};

/** One device of GET /device as JSON text -> what its tags have to do with. @return 0 or -1 */
int read_device_tree(std::string_view json, circumstances_map &map);

/** One answer of GET /diagnose: text of "data" and the reports of the port's transactions. */
struct transaction_state {
    std::string device;
    std::string transaction;
    int state = 255;
    uint32_t failed_count = 0;
};
int read_diagnose(std::string_view json, std::string &data, std::vector<transaction_state> &states);

/**
 * Asks the service what its tags cannot say, on a thread of its own ("mqtt-rest"). Values never
 * wait for it. Everything is optional: without an answer what was known last is kept, and
 * diagnostics are not published.
 */
class rest_client {
public:
    rest_client(const bridge_settings &settings,
                std::vector<tag_table *> tables,
                std::function<void(port_diagnostics)> diagnostics);
    ~rest_client(); // stops
    rest_client(const rest_client &) = delete;
    rest_client &operator=(const rest_client &) = delete;

    void start();
    void stop();

    /** Ask for the configuration again soon: tags have come or gone. Any thread. */
    void configuration_changed();

    /** Last report of a transaction; with fresh, ask its port again soon. Any thread. */
    transaction_report report(const tag_circumstances &known, bool fresh);

    /** Any thread. */
    bool reachable() const;
    bool stopping() const;

private:
    struct work {
        bool configuration = false;
        int diagnostics = 0; // of so many ports
        std::vector<int> ports;
    };
    void run();
    work take_work();
    void work_off(const work &due);
    int read_configuration();
    int read_devices(int port, circumstances_map &map);
    void read_port(int port, bool publish);
    /** @return HTTP status, -1 when there is no answer */
    int get(const std::string &path, std::string &body);
    void note_answer(int status, const char *problem);

    const bridge_settings &settings_;
    const std::vector<tag_table *> tables_;
    std::function<void(port_diagnostics)> diagnostics_;
    mutable std::mutex mutex_; // guards all below but curl_ and thread_
    std::condition_variable wake_;
    bool stop_ = false;
    bool configuration_wanted_ = true;
    bool reachable_ = false;
    bool failure_logged_ = false;
    std::vector<int> ports_wanted_;
    std::chrono::steady_clock::time_point configuration_at_; // not before
    std::chrono::steady_clock::time_point diagnostics_at_;
    std::chrono::steady_clock::time_point ask_at_;
    int port_count_ = 0;
    uint64_t report_number_ = 0;
    std::map<std::pair<std::string, std::string>, transaction_report> reports_;
    void *curl_ = nullptr; // the thread's
    std::thread thread_;
};

#endif
