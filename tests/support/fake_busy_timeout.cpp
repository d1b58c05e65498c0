#include "fake_busy_timeout.h"

#include <sqlite3.h>
#include <unistd.h>

fake_busy_timeout g_fake_busy_timeout;

namespace {

int wait_for_lock(void * /*context*/, int tries) {
    constexpr int slice_ms = 10;
    if (tries * slice_ms < g_fake_busy_timeout.used_ms) {
        (void)usleep(slice_ms * 1000);
        return 1;
    }
    g_fake_busy_timeout.waits++;
    if (g_fake_busy_timeout.after_wait) {
        g_fake_busy_timeout.after_wait();
    }
    return 0;
}

} // namespace

extern "C" int __wrap_sqlite3_busy_timeout(sqlite3 *db, int milliseconds) {
    g_fake_busy_timeout.asked_ms = milliseconds;
    return sqlite3_busy_handler(db, milliseconds > 0 ? wait_for_lock : nullptr, nullptr);
}
