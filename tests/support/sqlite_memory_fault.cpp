#include "sqlite_memory_fault.h"

#include "fault_countdown.h"

#include <cstdlib>
#include <sqlite3.h>

namespace {

sqlite3_mem_methods original;
fault_countdown countdown;

void *allocate(int size) {
    return countdown.fails_now() ? nullptr : original.xMalloc(size);
}

void *reallocate(void *memory, int size) {
    return countdown.fails_now() ? nullptr : original.xRealloc(memory, size);
}

/** SQLite takes other memory methods only before its first use. */
const bool installed = [] {
    if (sqlite3_config(SQLITE_CONFIG_GETMALLOC, &original) != SQLITE_OK) {
        abort();
    }
    sqlite3_mem_methods faulty = original;
    faulty.xMalloc = allocate;
    faulty.xRealloc = reallocate;
    if (sqlite3_config(SQLITE_CONFIG_MALLOC, &faulty) != SQLITE_OK) {
        abort();
    }
    return true;
}();

} // namespace

void sqlite_memory_fault::arm(int nth, bool lasting) {
    countdown.arm(nth, lasting);
}

bool sqlite_memory_fault::disarm() {
    return countdown.disarm();
}
