#include "mutex_fault.h"

#include <pthread.h>

thread_local mutex_fault g_mutex_fault;

extern "C" {

int __real_pthread_mutex_lock(pthread_mutex_t *mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t *mutex);

int __wrap_pthread_mutex_lock(pthread_mutex_t *mutex) {
    return g_mutex_fault.lock_result != 0 ? g_mutex_fault.lock_result
                                          : __real_pthread_mutex_lock(mutex);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *mutex) {
    if (g_mutex_fault.unlock_result == 0) {
        return __real_pthread_mutex_unlock(mutex);
    }
    if (g_mutex_fault.lock_result == 0) {
        (void)__real_pthread_mutex_unlock(mutex); // it was locked in earnest
    }
    return g_mutex_fault.unlock_result;
}

} // extern "C"
