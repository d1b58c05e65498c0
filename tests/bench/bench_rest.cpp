#include "bench_gateway.h"
#include "config/config_file.h"
#include "config/database_files.h"
#include "core/state.h"
#include "device/diag.h"
#include "largest.h"
#include "measured.h"
#include "rest/handlers.h"
#include "statement_record.h"
#include "traffic/recorder.h"

#include <kt/rest.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <jansson.h>
#include <string>
#include <vector>

/*
 * What a request costs: each endpoint's handler as the server calls it, and, on the same file, the
 * SQLite operations that it cannot do without: a connection opened as the service opens it, and the
 * statements that the handler executes, each text prepared once.
 *
 *   bench_rest [--size DEVICES,TRANSACTIONS] [--runs N] [--only TEXT] [--growth]
 *
 * --only measures the requests with that text in their names.
 *
 * Under callgrind every handler and every floor runs once and becomes a part of the output, named
 * "WHO/CASE".
 */

namespace {

constexpr int busy_slots = 256; // transactions of a port, in its diagnostics

size_t g_answer_bytes = 0;

struct request {
    const char *name; // as a client writes it
    rest_callback handler;
    const char *uri;
    std::string body;
    int status;
};

std::string tag_json(int tag) {
    return R"({"blockType":0,"tagName":"value-)" + std::to_string(tag) +
           R"(","tagType":6,"tagSize":2,"access":"ro","startOffset":)" + std::to_string(2 * tag) +
           R"(,"swap":0,"fpData":"0000","scalingFunc":)" +
           (tag == 0 ? R"(1,"interceptSlope":2,"interceptOffset":-10})" : "0}");
}

std::string frame_json(int canId) {
    std::string text = R"({"canId":)" + std::to_string(canId) + R"(,"dataLength":8,"blockList":[)";
    for (int tag = 0; tag < 4; tag++) {
        text += (tag == 0 ? "" : ",") + tag_json(tag);
    }
    return text + "]}";
}

std::string frames_json() {
    return R"("frameList":[)" + frame_json(256) + "," + frame_json(257) + "]";
}

std::string transaction_json(const std::string &name, const std::string &more) {
    return R"({"transactionEnable":true,"transactionName":")" + name +
           R"(","transactionType":2,"trigger":0,"cyclicInterval":1000,"fpFunc":0,)"
           R"("responseTimeout":100,"timeoutRetry":2)" +
           more + "}";
}

std::string device_json() {
    return R"({"portId":1,"deviceName":"drive","transactionList":[)" +
           transaction_json("a", "," + frames_json()) + "," +
           transaction_json("b", "," + frames_json()) + "]}";
}

constexpr const char *standard_port =
    R"({"frameFormat":0,"baudrate":3,"initialDelay":0,"busOffReset":true,"resistor":false})";

std::string upload(const std::string &content) {
    return "--edge\r\nContent-Disposition: form-data; name=\"file\"; filename=\"a.csv\"\r\n"
           "Content-Type: text/csv\r\n\r\n" +
           content + "\r\n--edge--\r\n";
}

std::vector<request> reading_requests() {
    return {
        {"GET /interface?portId=1",
         can_proprietary_rest_get_interface_config,
         "/CAN-proprietary/interface?portId=1",
         "",
         200},
        {"GET /device?deviceId=1",
         can_proprietary_rest_get_device_config,
         "/CAN-proprietary/device?deviceId=1",
         "",
         200},
        {"GET /overview",
         can_proprietary_rest_get_overview_config,
         "/CAN-proprietary/overview",
         "",
         200},
        {"GET /config-change",
         can_proprietary_rest_get_config_change,
         "/CAN-proprietary/config-change",
         "",
         200},
        {"GET /usedCANIds?portId=1",
         can_proprietary_rest_get_usedCANIds_config,
         "/CAN-proprietary/usedCANIds?portId=1",
         "",
         200},
        {"GET /diagnose?portId=1",
         can_proprietary_rest_get_diagnose,
         "/CAN-proprietary/diagnose?portId=1",
         "",
         200},
        {"GET /traffic/1",
         can_proprietary_rest_get_traffic_log,
         "/CAN-proprietary/traffic/1",
         "",
         200},
        {"GET /traffic-export/1",
         can_proprietary_rest_export_traffic_csv,
         "/CAN-proprietary/traffic-export/1",
         "",
         200},
        {"GET /config-file",
         can_proprietary_rest_get_config_file,
         "/CAN-proprietary/config-file",
         "",
         200},
    };
}

/** What fits is one device and two transactions less than the largest configuration. */
std::vector<request> changing_requests(const std::string &file) {
    return {
        {"PATCH /interface/2",
         can_proprietary_rest_patch_interface_config,
         "/CAN-proprietary/interface/2",
         standard_port,
         200},
        {"POST /device",
         can_proprietary_rest_post_device_config,
         "/CAN-proprietary/device",
         device_json(),
         201},
        {"PATCH /device/1",
         can_proprietary_rest_patch_device_name_config,
         "/CAN-proprietary/device/1",
         R"({"deviceName":"renamed"})",
         200},
        {"DELETE /device/1",
         can_proprietary_rest_delete_device_config,
         "/CAN-proprietary/device/1",
         "",
         204},
        {"POST /transaction",
         can_proprietary_rest_post_transaction_config,
         "/CAN-proprietary/transaction",
         transaction_json("new", R"(,"deviceId":1,)" + frames_json()),
         201},
        {"PATCH /transaction/1",
         can_proprietary_rest_patch_transaction_config,
         "/CAN-proprietary/transaction/1",
         transaction_json("renamed", ""),
         200},
        {"DELETE /transaction/1",
         can_proprietary_rest_delete_transaction_config,
         "/CAN-proprietary/transaction/1",
         "",
         204},
        {"PUT /frame/1",
         can_proprietary_rest_put_frame_config,
         "/CAN-proprietary/frame/1",
         "{" + frames_json() + "}",
         200},
        {"POST /traffic/1",
         can_proprietary_rest_post_traffic_log,
         "/CAN-proprietary/traffic/1",
         R"({"option":1})",
         201},
        {"POST /action (discard)",
         can_proprietary_post_rest_action,
         "/CAN-proprietary/action",
         R"({"option":1})",
         201},
        {"POST /action (apply)",
         can_proprietary_post_rest_action,
         "/CAN-proprietary/action",
         R"({"option":0})",
         201},
        {"POST /config-file",
         can_proprietary_rest_post_config_file,
         "/CAN-proprietary/config-file",
         upload(file),
         201},
    };
}

void send(const request &request) {
    const char *body = request.body.empty() ? nullptr : request.body.c_str();
    const int status = request.handler(request.uri, body, request.body.size());
    if (status != request.status) {
        give_up(std::string(request.name) + " answered " + std::to_string(status));
    }
}

void keep(const std::string &from, const std::string &to) {
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
}

/** One handler and its floor, each on the file as it was. */
class measurement {
public:
    measurement(const bench_gateway &gateway, request request, std::string size)
        : kept_(gateway.path("kept.db")), kept_applied_(gateway.path("kept-applied.db")),
          request_(std::move(request)), name_(request_.name + std::move(size)) {
        keep(working_db_path(), kept_);
        keep(persistent_db_path(), kept_applied_);
    }
    measurement(const measurement &) = delete;
    measurement &operator=(const measurement &) = delete;
    ~measurement() { restore(); }

    /** Statements, openings and the length of the answer. */
    void record() {
        {
            const statement_record record;
            g_answer_bytes = 0;
            send(request_);
        }
        const auto &recorded = statement_record::connections();
        openings_ = recorded.size();
        statements_ = count_statements(recorded);
        floor_ = std::string_view(request_.name).starts_with("GET") ? merge(recorded) : recorded;
        restore();
    }
    void print_counts() const {
        print_value(service(), "SQL statements", static_cast<double>(statements_));
        print_value(service(), "database opens", static_cast<double>(openings_));
        print_value(sqlite(), "database opens", static_cast<double>(floor_.size()));
        print_value(service(), "bytes of the answer", static_cast<double>(g_answer_bytes));
    }

    void count() {
        counting_starts();
        send(request_);
        counting_ends("service/" + name_);
        restore();
        if (has_floor()) {
            counting_starts();
            replay(working_db_path(), floor_);
            counting_ends("SQLite/" + name_);
            restore();
        }
    }

    void time(int runs) {
        std::vector<double> ours;
        std::vector<double> floor;
        for (int i = 0; i < runs; i++) {
            ours.push_back(one([this] { send(request_); }));
            if (has_floor()) {
                floor.push_back(one([this] { replay(working_db_path(), floor_); }));
            }
        }
        print_values(service(), "us of processor", ours);
        if (has_floor()) {
            print_values(sqlite(), "us of processor", floor);
        }
    }

private:
    [[nodiscard]] measured_case service() const { return {name_, "service"}; }
    [[nodiscard]] measured_case sqlite() const { return {name_, "SQLite"}; }

    /** What copies whole databases is no list of statements. */
    [[nodiscard]] bool has_floor() const {
        return openings_ > 0 &&
               std::string_view(request_.name).find("/action") == std::string::npos;
    }
    template <typename Work>
    double one(Work work) {
        const double before = processor_us();
        work();
        const double spent = processor_us() - before;
        restore();
        return spent;
    }
    void restore() const {
        keep(kept_, working_db_path());
        keep(kept_applied_, persistent_db_path());
    }

    std::string kept_;
    std::string kept_applied_;
    request request_;
    std::string name_;
    std::vector<recorded_connection> floor_;
    size_t openings_ = 0;
    size_t statements_ = 0;
};

struct options {
    configuration_size size = largest_size;
    int runs = 9;
    std::string_view only;
    bool growth = false;
};

void measure(const bench_gateway &gateway, const request &request, const options &options) {
    if (std::string_view(request.name).find(options.only) == std::string_view::npos) {
        return;
    }
    const std::string size = options.size.devices == largest_size.devices
                                 ? ""
                                 : ", " + std::to_string(options.size.tags()) + " tags";
    measurement measurement(gateway, request, size);
    measurement.record();
    if (is_counted()) {
        measurement.count();
        return;
    }
    measurement.print_counts();
    if (options.runs > 0) {
        measurement.time(options.runs);
    }
}

void fill(const bench_gateway &gateway, const std::string &file) {
    const std::string path = gateway.path("filling.csv");
    write_file(path, file);
    conf_import_error err{};
    if (can_proprietary_conf_import(path.c_str(), &err) != 0) {
        give_up(std::string("import: ") + err.key + " in " + err.table_name);
    }
    keep(working_db_path(), persistent_db_path());
}

void fill_diagnostics(int transactions) {
    if (can_proprietary_diag_create_infos(2) != 0 || can_proprietary_traffic_init(2) != 0) {
        give_up("no diagnostics");
    }
    for (int i = 0; i < transactions && i < busy_slots; i++) {
        (void)can_proprietary_diag_register(0, "device", "exchange", true);
    }
    if (can_proprietary_traffic_init_start_time(0) != 0 || can_proprietary_traffic_start(0) != 0) {
        give_up("no recording");
    }
    constexpr std::array<uint8_t, 8> data{};
    for (uint32_t i = 0; i < 100; i++) {
        (void)can_proprietary_traffic_record_log(data.data(), TRAFFIC_RECEIVE, i, 0, 8, 0);
    }
}

void measure_all(const bench_gateway &gateway, const options &options) {
    const both_forms forms = make_configuration(options.size);
    fill(gateway, forms.file);
    fill_diagnostics(options.size.transactions / 2);
    for (const request &request : reading_requests()) {
        measure(gateway, request, options);
    }
    bench_gateway::execute(
        "DELETE FROM device WHERE deviceId = (SELECT MAX(deviceId) FROM device)");
    for (const request &request : changing_requests(forms.file)) {
        measure(gateway, request, options);
    }
}

/** Statements of a device's GET against its transactions, of a port's identifiers likewise. */
void print_growth(const bench_gateway &gateway) {
    for (const int transactions : {1, 2, 4, 8, 16, 32, 64, 128, 256, 512}) {
        fill(gateway, make_configuration({1, transactions}).file);
        for (const request &request : reading_requests()) {
            const statement_record record;
            const std::string uri = request.uri;
            if (uri.find("deviceId") == uri.npos && uri.find("usedCANIds") == uri.npos &&
                uri.find("overview") == uri.npos) {
                continue;
            }
            std::string port_2 = uri; // which the one device is on
            if (const size_t port = uri.find("portId=1"); port != uri.npos) {
                port_2.replace(port, 8, "portId=2");
            }
            (void)request.handler(port_2.c_str(), nullptr, 0);
            print_value(
                {std::string(request.name) + ", " + std::to_string(transactions) + " transactions",
                 "service"},
                "SQL statements",
                static_cast<double>(count_statements(statement_record::connections())));
        }
    }
}

options read_options(int argc, char **argv) {
    options options;
    for (int i = 1; i < argc; i++) {
        const std::string_view word = argv[i];
        if (word == "--growth") {
            options.growth = true;
        } else if (word == "--runs" && i + 1 < argc) {
            options.runs = atoi(argv[++i]);
        } else if (word == "--only" && i + 1 < argc) {
            options.only = argv[++i];
        } else if (word == "--size" && i + 1 < argc &&
                   sscanf(
                       argv[i + 1], "%d,%d", &options.size.devices, &options.size.transactions) ==
                       2) {
            i++;
        } else {
            give_up("usage: bench_rest [--size DEVICES,TRANSACTIONS] [--runs N] [--only TEXT] "
                    "[--growth]");
        }
    }
    return options;
}

} // namespace

/** Stand where the server takes an answer over: they copy it, too. */
extern "C" int __wrap_rest_write(const char *text, size_t length) {
    static std::string answer;
    answer.assign(text, length);
    g_answer_bytes = length;
    return REST_OK;
}

extern "C" int
__wrap_rest_write_file(const char * /*download_name*/, const void *data, size_t length) {
    return __wrap_rest_write(static_cast<const char *>(data), length);
}

int main(int argc, char **argv) {
    json_object_seed(1); // else each run hashes otherwise, which is seen in the counts
    const options options = read_options(argc, argv);
    const bench_gateway gateway;
    options.growth ? print_growth(gateway) : measure_all(gateway, options);
    return 0;
}
