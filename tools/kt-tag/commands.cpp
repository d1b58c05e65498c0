#include "commands.h"

#include "output.h"
#include "program/output.h"
#include "tag_client.h"
#include "value_text.h"

#include <kt/dx_client.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fnmatch.h>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr int64_t look_again_ms = 1000;   // for a closed pipe and a store that was replaced
constexpr int64_t missing_store_ms = 100; // until the first provider comes

volatile sig_atomic_t stop_asked = 0;

struct found_tag {
    dx_tag_info info;
    dx_sample sample;
};

std::string store_path() {
    const char *root = getenv("KT_ROOT");
    return std::string(root == nullptr ? "" : root) + "/run/kt-dx/tags";
}

std::string reason(int code) {
    if (const char *text = client_result_text(code); text != nullptr) {
        return text;
    }
    switch (code) {
    case DX_NO_PERMISSION:
        return "no permission to write tags: " + store_path();
    case DX_NO_STORE:
        return "no tag store (is a provider running?): " + store_path();
    case DX_NO_MEMORY:
        return "out of memory";
    default:
        return "failed";
    }
}

int fail(const std::string &reason_text) {
    return program::complain(program::status_failed, reason_text);
}

int fail(const char *name, const std::string &reason_text) {
    return fail(std::string(name) + ": " + reason_text);
}

int open_and_find(const char *name, tag_client_ptr &client, dx_tag_info &info) {
    const int code = open_client(client);
    return code == DX_OK ? dx_client_find(client.get(), name, &info) : code;
}

bool print_tag(const tag_options &options, const dx_tag_info &info, const dx_sample &sample) {
    return program::print((options.json ? json_line(info, sample) : text_line(info, sample)) +
                          "\n");
}

int collect_tag(void *context, const dx_tag_info *info, const dx_sample *sample) {
    static_cast<std::vector<found_tag> *>(context)->push_back({*info, *sample});
    return 0;
}

int64_t now_ms() {
    timespec now{};
    (void)clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void ask_stop(int) {
    stop_asked = 1;
}

/** Without SA_RESTART: a signal ends the wait it comes into. */
void catch_stop_signals() {
    struct sigaction action {};
    action.sa_handler = ask_stop;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        (void)sigaction(signal, &action, nullptr); // these signals can be caught
    }
}

struct watch_run {
    const tag_options &options;
    int64_t end_ms; // negative for never
    tag_client_ptr client;
    uint64_t printed = 0;
    bool initial = options.initial; // still to be printed
    bool output_failed = false;
};

bool done(const watch_run &run) {
    return stop_asked || run.output_failed ||
           (run.options.count != 0 && run.printed >= run.options.count);
}

int64_t left_ms(const watch_run &run, int64_t most_ms) {
    return run.end_ms < 0 ? most_ms : std::clamp<int64_t>(run.end_ms - now_ms(), 0, most_ms);
}

int print_change(void *context, const dx_tag_info *info, const dx_sample *sample) {
    auto &run = *static_cast<watch_run *>(context);
    if (run.options.pattern && fnmatch(run.options.pattern, info->name, 0) != 0) {
        return 0;
    }
    if (!print_tag(run.options, *info, *sample)) {
        run.output_failed = true;
        return 1;
    }
    ++run.printed;
    return done(run) ? 1 : 0;
}

/** Marks the beginning first: a write while the values are printed comes once more as a change. */
int begin_watch(watch_run &run) {
    const int code = dx_client_changes(run.client.get(), print_change, &run);
    if (code < 0) {
        return code;
    }
    if (std::exchange(run.initial, false)) {
        (void)dx_client_list(run.client.get(), nullptr, print_change, &run); // arguments are good
    }
    return DX_OK;
}

/** @return a dx_result; DX_NO_STORE when time was up or a signal came before there was a store */
int wait_for_store(watch_run &run) {
    while (true) {
        const int code = open_client(run.client);
        if (code == DX_OK) {
            return begin_watch(run);
        }
        const int64_t pause_ms = left_ms(run, missing_store_ms);
        if (code != DX_NO_STORE || pause_ms == 0 || stop_asked || program::output_abandoned()) {
            return code;
        }
        const timespec pause = {0, static_cast<long>(pause_ms * 1000000)};
        (void)nanosleep(&pause, nullptr); // a signal may cut it short
    }
}

/** @return a dx_result */
int watch_store(watch_run &run) {
    while (!done(run)) {
        const int64_t wait_ms = left_ms(run, look_again_ms);
        const int code = dx_client_wait(run.client.get(), static_cast<int>(wait_ms));
        if (code == 1) {
            const int visited = dx_client_changes(run.client.get(), print_change, &run);
            if (visited < 0) {
                return visited;
            }
            if (left_ms(run, look_again_ms) != 0) {
                continue;
            }
        }
        if (left_ms(run, look_again_ms) == 0 || program::output_abandoned()) {
            return DX_OK;
        }
        if (!dx_client_current(run.client.get())) {
            const int opened = wait_for_store(run);
            if (opened != DX_OK) {
                return opened;
            }
        }
    }
    return DX_OK;
}

} // namespace

int list_tags(const tag_options &options) {
    tag_client_ptr client;
    const int code = open_client(client);
    if (code != DX_OK) {
        return fail(reason(code));
    }
    std::vector<found_tag> found;
    (void)dx_client_list(client.get(), options.pattern, collect_tag, &found); // arguments are good
    std::sort(found.begin(), found.end(), [](const found_tag &a, const found_tag &b) {
        return std::string_view(a.info.name) < std::string_view(b.info.name);
    });
    for (const found_tag &tag : found) {
        if (!print_tag(options, tag.info, tag.sample)) {
            break;
        }
    }
    return program::output_status();
}

int get_tag(const tag_options &options) {
    tag_client_ptr client;
    dx_tag_info info;
    dx_sample sample;
    int code = open_and_find(options.name, client, info);
    code = code == DX_OK ? dx_client_read(client.get(), &info, &sample) : code;
    if (code != DX_OK) {
        return fail(options.name, reason(code));
    }
    (void)program::print((options.json ? json_line(info, sample) : value_text(info, sample)) +
                         "\n");
    return program::output_status();
}

int set_tag(const tag_options &options) {
    tag_client_ptr client;
    dx_tag_info info;
    int code = open_and_find(options.name, client, info);
    if (code != DX_OK) {
        return fail(options.name, reason(code));
    }
    if (info.mode == DX_READ_ONLY) {
        return fail(options.name, reason(DX_IS_READ_ONLY));
    }
    uint8_t value[DX_VALUE_MAX];
    std::string error;
    if (!parse_value(info, options.value, value, error)) {
        return fail(options.name, error);
    }
    code = dx_client_write(client.get(), &info, value, info.size);
    return code == DX_OK ? 0 : fail(options.name, reason(code));
}

int watch_tags(const tag_options &options) {
    catch_stop_signals();
    watch_run run{options, options.timeout_ms < 0 ? -1 : now_ms() + options.timeout_ms, nullptr};
    int code = wait_for_store(run);
    code = code == DX_OK ? watch_store(run) : code;
    if (stop_asked || run.output_failed || program::output_abandoned()) {
        return program::output_status();
    }
    if (code != DX_OK) {
        return fail(reason(code));
    }
    return options.count != 0 && run.printed < options.count ? 1 : 0;
}
