#include "fake_semaphore.h"

#include <kt/protocol_common.h>

fake_semaphore g_fake_semaphore;

extern "C" {

int __real_semaphoreDown(const char *key_path, kt_semaphore **handle);
int __real_semaphoreUp(kt_semaphore *handle);

int __wrap_semaphoreDown(const char *key_path, kt_semaphore **handle) {
    if (g_fake_semaphore.fails) {
        return -1;
    }
    g_fake_semaphore.taken.emplace_back(key_path); // may throw: before the lock is held
    if (__real_semaphoreDown(key_path, handle) != 0) {
        g_fake_semaphore.taken.pop_back();
        return -1;
    }
    g_fake_semaphore.held++;
    if (g_fake_semaphore.while_held) {
        g_fake_semaphore.while_held();
    }
    return 0;
}

int __wrap_semaphoreUp(kt_semaphore *handle) {
    g_fake_semaphore.held--;
    return __real_semaphoreUp(handle);
}

} // extern "C"
