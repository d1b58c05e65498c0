#include "rest_client.h"

#include "json.h"
#include "log.h"

#include <algorithm>
#include <chrono>
#include <curl/curl.h>
#include <exception>
#include <memory>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr size_t answer_max_bytes = size_t{16} * 1024 * 1024;
constexpr long connect_limit_ms = 1000;
constexpr long answer_limit_ms = 5000;
constexpr int ports_max = 64;
constexpr milliseconds
    configuration_period(1000);         // at most this often, whether it could be read or not
constexpr milliseconds ask_period(200); // at most this often for outcomes
constexpr int64_t age_tolerance_ms = 100;

constexpr int type_consume = 1;
constexpr int type_request = 2;
constexpr int trigger_on_change = 1;

json_ptr parse(std::string_view text) {
    return json_ptr(json_loadb(text.data(), text.size(), 0, nullptr));
}

const json_t *member(const json_t *object, const char *name) {
    return json_object_get(object, name); // NULL for what is no object
}

std::string text_of(const json_t *object, const char *name) {
    const json_t *value = member(object, name);
    return json_is_string(value) ? std::string(json_string_value(value), json_string_length(value))
                                 : std::string();
}

int64_t number_of(const json_t *object, const char *name) {
    constexpr double largest = 1e15; // every count of the service, whole in a double
    const double number = json_number_value(member(object, name)); // 0 for what is no number
    return static_cast<int64_t>(std::clamp(number, -largest, largest));
}

bool is_true(const json_t *object, const char *name) {
    return json_is_true(member(object, name));
}

const json_t *list_of(const json_t *object, const char *name) {
    return member(object, name);
}

std::string tag_name(const tag_circumstances &tag) {
    return "can_proprietary/" + tag.device + "/" + tag.transaction + "_" + tag.tag;
}

constexpr std::string_view digits = "0123456789abcdef";

/** 0 for what is no digit. */
size_t digit_value(char digit) {
    const char lower = digit >= 'A' && digit <= 'F' ? static_cast<char>(digit + 32) : digit;
    const size_t value = digits.find(lower);
    return value == std::string_view::npos ? 0 : value;
}

/** As the service reads it: an odd text lacks the first digit of its first byte. */
void read_fault_value(std::string text, uint8_t (&value)[DX_VALUE_MAX]) {
    if (text.size() % 2 != 0) {
        text.insert(0, "0");
    }
    for (size_t i = 0; i < DX_VALUE_MAX && 2 * i + 1 < text.size(); ++i) {
        value[i] =
            static_cast<uint8_t>(digit_value(text[2 * i]) << 4 | digit_value(text[2 * i + 1]));
    }
}

/** What all tags of a frame have in common, from its transaction. */
tag_circumstances of_transaction(const json_t *transaction, const std::string &device, int port) {
    tag_circumstances common;
    const int64_t type = number_of(transaction, "transactionType");
    common.device = device;
    common.transaction = text_of(transaction, "transactionName");
    common.port = port;
    common.sent_on_change = number_of(transaction, "trigger") == trigger_on_change;
    if (type == type_consume) {
        common.max_age_ms = is_true(transaction, "consumeToutEnable")
                                ? number_of(transaction, "consumeTimeout") + age_tolerance_ms
                                : 0;
        return common;
    }
    common.is_request = type == type_request;
    common.answer_ms =
        (number_of(transaction, "timeoutRetry") + 1) * number_of(transaction, "responseTimeout");
    if (!common.sent_on_change) {
        common.answer_ms += number_of(transaction, "cyclicInterval");
    }
    if (number_of(transaction, "fpFunc") != 0) {
        common.fault_after_ms = number_of(transaction, "fpTimeout");
    }
    return common;
}

std::vector<std::string> response_names(const tag_circumstances &common, const json_t *frame) {
    std::vector<std::string> names;
    size_t i = 0;
    json_t *block = nullptr;
    json_array_foreach(list_of(frame, "blockList"), i, block) {
        tag_circumstances tag = common;
        tag.tag = text_of(block, "tagName");
        if (number_of(block, "blockType") == 0) {
            names.push_back(tag_name(tag));
        }
    }
    return names;
}

void read_blocks(const json_t *transaction,
                 const json_t *frame,
                 const tag_circumstances &common,
                 circumstances_map &map) {
    size_t i = 0;
    json_t *block = nullptr;
    json_array_foreach(list_of(frame, "blockList"), i, block) {
        if (number_of(block, "blockType") != 0) {
            continue;
        }
        tag_circumstances tag = common;
        tag.tag = text_of(block, "tagName");
        if (number_of(transaction, "fpFunc") == 2) { // 1 sends zeros
            read_fault_value(text_of(block, "fpData"), tag.fault_value);
        }
        const std::string name = tag_name(tag);
        map[name] = std::move(tag);
    }
}

void read_transaction(const json_t *transaction,
                      const std::string &device,
                      int port,
                      circumstances_map &map) {
    const json_t *frames = list_of(transaction, "frameList");
    tag_circumstances sent = of_transaction(transaction, device, port);
    tag_circumstances received = sent;
    received.is_request = false;
    received.fault_after_ms = 0;
    const bool is_request = sent.is_request;
    const json_t *second = json_array_get(frames, 1);
    if (is_request && second != nullptr) {
        sent.response_tags = response_names(sent, second);
    }
    size_t i = 0;
    json_t *frame = nullptr;
    json_array_foreach(frames, i, frame) {
        read_blocks(transaction, frame, i == 0 ? sent : received, map);
    }
}

size_t append_answer(char *data, size_t size, size_t number, void *context) {
    auto &body = *static_cast<std::string *>(context);
    const size_t length = size * number;
    if (body.size() + length > answer_max_bytes) {
        return 0; // ends the transfer
    }
    try {
        body.append(data, length);
    } catch (const std::exception &) {
        return 0;
    }
    return length;
}

struct curl_list {
    curl_slist *list = nullptr;
    ~curl_list() { curl_slist_free_all(list); }
};

} // namespace

int read_device_tree(std::string_view json, circumstances_map &map) {
    const json_ptr document = parse(json);
    const json_t *data = member(document.get(), "data");
    const std::string device = text_of(data, "deviceName");
    if (device.empty()) {
        return -1;
    }
    const auto port = static_cast<int>(number_of(data, "portId"));
    size_t i = 0;
    json_t *transaction = nullptr;
    json_array_foreach(list_of(data, "transactionList"), i, transaction) {
        if (is_true(transaction, "transactionEnable")) {
            read_transaction(transaction, device, port, map);
        }
    }
    return 0;
}

int read_diagnose(std::string_view json,
                  std::string &data,
                  std::vector<transaction_state> &states) {
    const json_ptr document = parse(json);
    const json_t *found = member(document.get(), "data");
    const std::unique_ptr<char, decltype(&free)> text(
        json_is_object(found) ? json_dumps(found, JSON_COMPACT) : nullptr, free);
    if (!text) {
        return -1;
    }
    data = text.get();
    size_t i = 0;
    json_t *item = nullptr;
    json_array_foreach(list_of(found, "transactionList"), i, item) {
        states.push_back({text_of(item, "deviceName"),
                          text_of(item, "transactionName"),
                          static_cast<int>(number_of(item, "transactionState")) & 0xFF,
                          static_cast<uint32_t>(number_of(item, "failedCount"))});
    }
    return 0;
}

rest_client::rest_client(const bridge_settings &settings,
                         std::vector<tag_table *> tables,
                         std::function<void(port_diagnostics)> diagnostics)
    : settings_(settings), tables_(std::move(tables)), diagnostics_(std::move(diagnostics)) {}

rest_client::~rest_client() {
    stop();
}

void rest_client::start() {
    if (settings_.rest_url.empty()) {
        return;
    }
    (void)curl_global_init(CURL_GLOBAL_DEFAULT); // a failure shows in curl_easy_init()
    thread_ = std::thread([this] {
        (void)pthread_setname_np(pthread_self(), "mqtt-rest"); // for people only
        run();
    });
}

void rest_client::stop() {
    {
        const std::lock_guard lock(mutex_);
        stop_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void rest_client::configuration_changed() {
    const std::lock_guard lock(mutex_);
    configuration_wanted_ = true;
    wake_.notify_one();
}

transaction_report rest_client::report(const tag_circumstances &known, bool fresh) {
    const std::lock_guard lock(mutex_);
    if (fresh && thread_.joinable() && std::ranges::count(ports_wanted_, known.port) == 0) {
        ports_wanted_.push_back(known.port);
        wake_.notify_one();
    }
    const auto found = reports_.find({known.device, known.transaction});
    return found == reports_.end() ? transaction_report{} : found->second;
}

bool rest_client::reachable() const {
    const std::lock_guard lock(mutex_);
    return reachable_;
}

/** Asked to stop, libcurl gives up within a second. */
static int ask_to_go_on(void *context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<rest_client *>(context)->stopping() ? 1 : 0;
}

bool rest_client::stopping() const {
    const std::lock_guard lock(mutex_);
    return stop_;
}

int rest_client::get(const std::string &path, std::string &body) {
    if (curl_ == nullptr) {
        curl_ = curl_easy_init();
    }
    if (curl_ == nullptr) {
        return -1;
    }
    CURL *curl = curl_;
    const std::string url = settings_.rest_url + path;
    curl_list headers;
    if (!settings_.rest_token.empty()) {
        const std::string header = "Authorization: Bearer " + settings_.rest_token;
        headers.list = curl_slist_append(nullptr, header.c_str());
    }
    body.clear();
    // What an option that cannot be set would spoil shows in the answer.
    (void)curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    (void)curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    (void)curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    (void)curl_easy_setopt(curl, CURLOPT_NOPROXY, "*"); // the service is on this gateway
    (void)curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, connect_limit_ms);
    (void)curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, answer_limit_ms);
    (void)curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.list);
    (void)curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append_answer);
    (void)curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    (void)curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    (void)curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, ask_to_go_on);
    (void)curl_easy_setopt(curl, CURLOPT_XFERINFODATA, this);
    const CURLcode code = curl_easy_perform(curl);
    (void)curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr); // the list goes now
    long status = -1;
    if (code == CURLE_OK) {
        (void)curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    }
    note_answer(static_cast<int>(status), code == CURLE_OK ? "" : curl_easy_strerror(code));
    return static_cast<int>(status);
}

void rest_client::note_answer(int status, const char *problem) {
    const std::lock_guard lock(mutex_);
    const bool good = status == 200;
    if (good != reachable_ || (!good && !failure_logged_)) {
        failure_logged_ = !good;
        log_line(good ? std::string("the service's REST API answers")
                 : status > 0
                     ? "the service's REST API answers with status " + std::to_string(status)
                     : std::string("the service's REST API is not there: ") + problem);
    }
    reachable_ = good;
}

/** @return 0, or -1 to try again later */
int rest_client::read_devices(int port, circumstances_map &map) {
    std::string body;
    if (get("/interface?portId=" + std::to_string(port), body) != 200) {
        return -1;
    }
    const json_ptr answer = parse(body);
    const json_t *devices = list_of(member(answer.get(), "data"), "deviceList");
    size_t i = 0;
    json_t *device = nullptr;
    json_array_foreach(devices, i, device) {
        const int64_t id = number_of(device, "deviceId");
        if (get("/device?deviceId=" + std::to_string(id), body) != 200 || stopping()) {
            return -1;
        }
        (void)read_device_tree(body, map); // a device that went meanwhile has no tags either
    }
    return 0;
}

/**
 * The API shows the configuration that is being edited: what was not applied says nothing about the
 * tags, so it is left alone until it is applied or discarded.
 */
int rest_client::read_configuration() {
    std::string body;
    if (get("/config-change", body) != 200) {
        return -1;
    }
    const json_ptr changed = parse(body);
    if (number_of(member(changed.get(), "data"), "result") != 0) {
        return -1;
    }
    if (get("/overview", body) != 200) {
        return -1;
    }
    const json_ptr overview = parse(body);
    const int64_t count = number_of(member(overview.get(), "data"), "portNum");
    const int ports = static_cast<int>(std::clamp<int64_t>(count, 0, ports_max));
    circumstances_map map;
    for (int port = 1; port <= ports; ++port) {
        if (read_devices(port, map) != 0) {
            return -1;
        }
    }
    for (tag_table *table : tables_) {
        table->set_circumstances(map, read_clocks());
    }
    const std::lock_guard lock(mutex_);
    port_count_ = ports;
    reports_.clear(); // of transactions that may be gone
    return 0;
}

void rest_client::read_port(int port, bool publish) {
    std::string body;
    if (get("/diagnose?portId=" + std::to_string(port), body) != 200) {
        return;
    }
    std::string data;
    std::vector<transaction_state> states;
    if (read_diagnose(body, data, states) != 0) {
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        ++report_number_;
        for (const transaction_state &one : states) {
            reports_[{one.device, one.transaction}] = {
                true, one.state, one.failed_count, report_number_};
        }
    }
    if (publish) {
        diagnostics_({port, std::move(data)});
    }
}

/** With the mutex held: what is due now is taken and will be due again after its period. */
rest_client::work rest_client::take_work() {
    const auto now = steady_clock::now();
    const auto period = std::chrono::seconds(settings_.diagnostics_period_s);
    work due;
    due.configuration = configuration_wanted_ && now >= configuration_at_;
    if (due.configuration) {
        configuration_wanted_ = false;
        configuration_at_ = now + configuration_period;
    }
    due.diagnostics = period.count() > 0 && now >= diagnostics_at_ ? port_count_ : 0;
    if (due.diagnostics > 0) {
        diagnostics_at_ = now + period;
    }
    if (now >= ask_at_ && !ports_wanted_.empty()) {
        due.ports.swap(ports_wanted_);
        ask_at_ = now + ask_period;
    }
    return due;
}

void rest_client::work_off(const work &due) {
    if (due.configuration && read_configuration() != 0) {
        configuration_changed(); // again
    }
    for (int port = 1; port <= due.diagnostics && !stopping(); ++port) {
        read_port(port, true);
    }
    for (const int port : due.ports) {
        read_port(port, false);
    }
}

void rest_client::run() {
    std::unique_lock lock(mutex_);
    while (!stop_) {
        const work due = take_work();
        lock.unlock();
        try {
            work_off(due);
        } catch (const std::exception &problem) {
            log_line(std::string("REST API: ") + problem.what());
        }
        lock.lock();
        if (!stop_) {
            (void)wake_.wait_for(lock, ask_period); // what is due shows at the next look
        }
    }
    lock.unlock();
    curl_easy_cleanup(curl_);
    curl_ = nullptr;
}
