#include "config/database_files.h"
#include "config/read.h"
#include "core/state.h"
#include "device/diag.h"
#include "rest/endpoints.h"
#include "scenario.h"
#include "traffic/recorder.h"

#include <kt/rest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

/* Requests to the real handlers behind the real server, and reading of what a port runs on. */

namespace {

namespace fs = std::filesystem;

constexpr int patience_ms = 700;

void begin_serving(void *result) {
    void *handle = nullptr;
    *static_cast<int *>(result) = can_proprietary_db_update_ram_modified_time() == 0 &&
                                          can_proprietary_traffic_init(1) == 0 &&
                                          can_proprietary_diag_create_infos(1) == 0 &&
                                          can_proprietary_rest_init("CAN-proprietary", &handle) == 0
                                      ? 0
                                      : -1;
}

void end_serving(void * /*unused*/) {
    rest_cleanup();
    can_proprietary_traffic_deinit();
    can_proprietary_diag_release_infos();
}

void lift() {
    (void)injection::disarm();
}

/** Databases as they were made; the files stay the same ones. */
void restore(const attempt &attempt) {
    for (const std::string &path : {persistent_db_path(), working_db_path()}) {
        const std::string below = path.substr(attempt.root.size());
        std::error_code ignored; // seen in the rows
        fs::copy_file(attempt.fresh + below, path, fs::copy_options::overwrite_existing, ignored);
        fs::remove(path + "-journal", ignored);
    }
    can_proprietary_restart = 0;
}

bool has_code(const http_answer &answer, int code) {
    return answer.body.find("\"code\":" + std::to_string(code) + ",") != std::string::npos;
}

bool is_delete_device(const http_request &request) {
    return std::string(request.method) == "DELETE" && request.path.rfind("/device", 0) == 0;
}

/** Failures that a request can meet behind its change: to say that it is done. */
bool may_be_done(const http_request &request, const http_answer &answer) {
    if (answer.status == 0 || answer.body.find("\"code\":-") == std::string::npos ||
        has_code(answer, -5) || has_code(answer, -6)) {
        return true;
    }
    // Of a commit, when the system fails to give a lock back behind it, and of an apply, when it
    // fails to tell the time of the copied file. The deletion of a device is its own commit, and
    // calls every failure invalid parameters.
    return has_code(answer, -8) || (request.path == "/config-file" && has_code(answer, -13)) ||
           (is_delete_device(request) && has_code(answer, -1)) ||
           ((request.path == "/action" || request.path == "/config-file" ||
             is_delete_device(request)) &&
            has_code(answer, -4));
}

bool is_refusal(int status) {
    return status == 0 || status == 400 || status == 500 || status == 503;
}

std::string shown(const http_answer &answer) {
    return std::to_string(answer.status) + " " + answer.body.substr(0, 200);
}

void judge(const scenario &scenario,
           const attempt &attempt,
           const http_answer &answer,
           const std::string &rows,
           outcome &out) {
    if (answer.status == scenario.status) {
        out.is = verdict::SUCCEEDED;
        if (!attempt.new_rows.empty() && rows != attempt.new_rows) {
            find(out, "success, but the rows are others: " + shown(answer) + " " + rows);
        }
        return;
    }
    out.is = verdict::REFUSED;
    if (!is_refusal(answer.status)) {
        find(out, "undocumented answer: " + shown(answer));
    } else if (rows == attempt.old_rows) {
        return;
    } else if (rows == attempt.new_rows && may_be_done(scenario.request, answer)) {
        out.is = verdict::UNTOLD;
    } else {
        find(out, "refused, but the rows are others: " + shown(answer) + " " + rows);
    }
}

/** The state in which the request is made; repeated, it is the same again. */
void play_prelude(const scenario &scenario, const attempt &attempt, outcome &out) {
    if (scenario.prelude == nullptr) {
        return;
    }
    const http_answer answer = ask(attempt.root, {"POST", "/traffic/1", scenario.prelude});
    if (answer.status != 201) {
        find(out, "before it: " + shown(answer));
    }
}

void try_again(const scenario &scenario, const attempt &attempt, outcome &out) {
    restore(attempt);
    play_prelude(scenario, attempt, out);
    const http_answer answer = ask(attempt.root, scenario.request);
    const std::string rows = scene::content(attempt.root);
    if (answer.status != scenario.status || rows != attempt.new_rows) {
        find(out, "without a fault then: " + shown(answer) + " " + rows);
    }
}

void check_left(const char *what, int64_t before, int64_t now, outcome &out) {
    if (now != before) {
        find(out,
             std::string(what) + ": " + std::to_string(before) + " before, " + std::to_string(now) +
                 " left");
    }
}

struct load {
    device_config *devices = nullptr;
    int result = 0;
};

void load_devices(void *to) {
    auto &loaded = *static_cast<load *>(to);
    loaded.result = can_proprietary_conf_get_port_config(&loaded.devices, 1);
}

void free_devices(void *from) {
    conf_free_device_list(static_cast<load *>(from)->devices);
}

} // namespace

void run_request(const scenario &scenario, const attempt &attempt, outcome &out) {
    (void)setenv("KT_REST_LISTEN", "127.0.0.1:0", 1);
    scene::enter(attempt.root);
    int started = -1;
    injection::run_as_subject(begin_serving, &started);
    if (started != 0) {
        find(out, "the server does not start");
        return;
    }
    play_prelude(scenario, attempt, out);
    (void)settle();
    const int64_t live = heap::live();
    const int descriptors = open_descriptors();
    const uint64_t latest = heap::latest();
    injection::arm(attempt.plan);
    const http_answer answer = ask(attempt.root, scenario.request, patience_ms, lift);
    if (attempt.plan.lasting) {
        lift(); // a server that gets nothing tries for ever
    }
    const bool quiet = settle();
    out.happened = injection::disarm();
    out.seen = injection::seen();
    const std::string rows = scene::content(attempt.root);
    (void)snprintf(out.content, sizeof out.content, "%s", rows.c_str());
    judge(scenario, attempt, answer, rows, out);
    if (!quiet) {
        find(out, "the server does not come to rest");
    }
    if (!attempt.new_rows.empty()) {
        try_again(scenario, attempt, out);
        play_prelude(scenario, attempt, out);
    }
    (void)settle();
    check_left("blocks", live, heap::live(), out);
    check_left("descriptors", descriptors, open_descriptors(), out);
    if (injection::is_telling() && heap::live() != live) {
        heap::print_later_than(latest);
    }
    injection::run_as_subject(end_serving, nullptr);
}

void run_load(const scenario & /*scenario*/, const attempt &attempt, outcome &out) {
    scene::enter(attempt.root);
    const int64_t live = heap::live();
    const int descriptors = open_descriptors();
    load first;
    injection::arm(attempt.plan);
    injection::run_as_subject(load_devices, &first);
    out.happened = injection::disarm();
    out.seen = injection::seen();
    out.is = first.result == 0 ? verdict::SUCCEEDED : verdict::REFUSED;
    if (first.result != 0 && first.result != -1 && first.result != -7) {
        find(out, "undocumented result " + std::to_string(first.result));
    }
    if ((first.result == 0) != (first.devices != nullptr)) {
        find(out, "result and list do not fit");
    }
    injection::run_as_subject(free_devices, &first);
    load second;
    injection::run_as_subject(load_devices, &second);
    if (second.result != 0 || second.devices == nullptr) {
        find(out, "without a fault then: " + std::to_string(second.result));
    }
    injection::run_as_subject(free_devices, &second);
    check_left("blocks", live, heap::live(), out);
    check_left("descriptors", descriptors, open_descriptors(), out);
    const std::string rows = scene::content(attempt.root);
    (void)snprintf(out.content, sizeof out.content, "%s", rows.c_str());
    if (!attempt.old_rows.empty() && rows != attempt.old_rows) {
        find(out, "reading has changed rows: " + rows);
    }
}
