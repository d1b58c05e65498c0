#include "store_watch.h"

#include "log.h"
#include "tag_client.h"

#include <exception>
#include <string>
#include <utility>

namespace {

constexpr int64_t wait_ms = 100;  // longest sleep: the end of the program is noticed
constexpr int64_t tick_ms = 100;  // qualities that depend on time
constexpr int64_t probe_ms = 200; // is the provider alive?
constexpr int64_t list_ms = 2000; // tags that went; costs a walk through the store
constexpr int64_t retry_ms = 200; // store that is not there

struct watch_run {
    store_watch &watch;
    tag_client_ptr client;
    int open_code = 1;     // of the last attempt; before the first one none of its codes
    dx_tag_info probe{};   // some tag
    bool probed = false;   // probe is set
    bool unlinked = false; // the file of the store is gone, nobody has made another
    bool failed = false;   // out of memory in a visit
    int64_t tick_at = 0;
    int64_t probe_at = 0;
    int64_t list_at = 0;
};

bool due(int64_t &at, int64_t period, int64_t now) {
    if (now < at) {
        return false;
    }
    at = now + period;
    return true;
}

void pause(int64_t ms) {
    const timespec time = {0, static_cast<long>(ms * 1000000)};
    (void)nanosleep(&time, nullptr); // cut short by a signal does no harm
}

/** No exception may pass through the library. */
int visit(void *context, const dx_tag_info *info, const dx_sample *sample) {
    auto &run = *static_cast<watch_run *>(context);
    try {
        const clock_pair now = read_clocks();
        for (tag_table *table : run.watch.tables) {
            table->update(*info, *sample, now);
        }
        if (!run.probed) {
            run.probe = *info;
            run.probed = true;
        }
        return 0;
    } catch (const std::exception &problem) {
        run.failed = true;
        log_line(std::string("tag not taken over: ") + problem.what());
        return 1;
    }
}

void list_tags(watch_run &run) {
    run.probed = run.failed = false;
    for (tag_table *table : run.watch.tables) {
        table->begin_list();
    }
    (void)dx_client_list(run.client.get(), nullptr, visit, &run); // arguments are good
    const clock_pair now = read_clocks();
    for (tag_table *table : run.watch.tables) {
        if (!run.failed) {
            table->end_list(now);
        }
    }
    run.watch.changed();
}

void service_down(const watch_run &run) {
    const clock_pair now = read_clocks();
    for (tag_table *table : run.watch.tables) {
        table->service_down(now);
    }
}

void log_open(watch_run &run, int code) {
    if (std::exchange(run.open_code, code) == code) {
        return;
    }
    if (code == DX_NO_STORE) {
        log_line("no tag store: waiting for the service");
    } else if (code != DX_OK) {
        log_line("the tag store cannot be used: trying again");
    } else {
        log_line("tag store opened");
    }
}

/** Marks the beginning first: a write meanwhile comes once more as a change. */
void begin(watch_run &run, tag_client_ptr client) {
    run.client = std::move(client);
    run.unlinked = false;
    count(run.watch.statistics->store_opens);
    (void)dx_client_changes(run.client.get(), visit, &run); // the list tells of damage
    service_down(run);
    list_tags(run);
}

void try_open(watch_run &run) {
    tag_client_ptr client;
    const int code = open_client(client);
    log_open(run, code);
    if (client) {
        begin(run, std::move(client));
        return;
    }
    if (code == DX_STORE_REFUSED) {
        count(run.watch.statistics->store_refusals);
    }
    pause(retry_ms);
}

/** The file may have been removed below a service that goes on: its tags are still live. */
void follow_file(watch_run &run) {
    if (dx_client_current(run.client.get()) == 1) {
        return;
    }
    tag_client_ptr client;
    const int code = open_client(client);
    if (client) {
        log_line("the tag store was replaced");
        begin(run, std::move(client));
    } else if (!run.watch.tables.front()->service_alive()) {
        log_open(run, code);
        service_down(run);
        run.client.reset();
        run.watch.changed();
    } else if (!std::exchange(run.unlinked, true)) {
        log_line("the file of the tag store is gone: using what is open while its service lives");
    }
}

void look_around(watch_run &run) {
    const clock_pair now = read_clocks();
    if (due(run.tick_at, tick_ms, now.monotonic_ms)) {
        for (tag_table *table : run.watch.tables) {
            table->tick(now);
        }
        run.watch.changed();
    }
    bool list = due(run.list_at, list_ms, now.monotonic_ms);
    if (due(run.probe_at, probe_ms, now.monotonic_ms)) {
        dx_sample ignored;
        list =
            list || (run.probed && dx_client_read(run.client.get(), &run.probe, &ignored) != DX_OK);
        follow_file(run);
    }
    if (list && run.client) {
        list_tags(run);
    }
}

void watch_once(watch_run &run) {
    if (!run.client) {
        try_open(run);
        return;
    }
    if (dx_client_wait(run.client.get(), static_cast<int>(wait_ms)) == 1) {
        const int visited = dx_client_changes(run.client.get(), visit, &run);
        if (visited > 0) {
            count(run.watch.statistics->changes, static_cast<uint64_t>(visited));
            run.watch.changed();
        }
        pause(store_pace_ms);
    }
    look_around(run);
}

void run_watch(store_watch &watch) noexcept {
    (void)pthread_setname_np(pthread_self(), "mqtt-store"); // for people only
    watch_run run{watch, nullptr};
    while (!watch.stop.load(std::memory_order_relaxed)) {
        try {
            watch_once(run);
        } catch (const std::exception &problem) {
            log_line(std::string("tag store: ") + problem.what());
            pause(retry_ms);
        }
    }
}

} // namespace

void store_watch_start(store_watch &watch) {
    watch.thread = std::thread([&watch] { run_watch(watch); });
}

void store_watch_stop(store_watch &watch) {
    watch.stop.store(true, std::memory_order_relaxed);
    if (watch.thread.joinable()) {
        watch.thread.join();
    }
}
