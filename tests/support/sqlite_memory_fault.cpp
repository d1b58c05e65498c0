#include "sqlite_memory_fault.h"

#include <cstdlib>
#include <sqlite3.h>

namespace {

sqlite3_mem_methods original;
int countdown = 0;
bool stays = false;
bool failed = false;

bool fails_now() {
    if (countdown == 0 || --countdown > 0) {
        return false;
    }
    countdown = stays ? 1 : 0;
    failed = true;
    return true;
}

void *allocate(int size) {
    return fails_now() ? nullptr : original.xMalloc(size);
}

void *reallocate(void *memory, int size) {
    return fails_now() ? nullptr : original.xRealloc(memory, size);
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
    countdown = nth;
    stays = lasting;
    failed = false;
}

bool sqlite_memory_fault::disarm() {
    countdown = 0;
    return failed;
}
