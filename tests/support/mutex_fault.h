#ifndef KT_TESTS_MUTEX_FAULT_H
#define KT_TESTS_MUTEX_FAULT_H

/* Failing pthread_mutex_lock() and pthread_mutex_unlock() calls of this thread. */

struct mutex_fault {
    int lock_result = 0; /* anything but 0 is returned instead of locking, until reset */
    int unlock_result = 0;
};

extern thread_local mutex_fault g_mutex_fault;

#endif
