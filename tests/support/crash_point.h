#ifndef KT_TESTS_CRASH_POINT_H
#define KT_TESTS_CRASH_POINT_H

#include <functional>

/*
 * Ends a child process just before one of its changes to the file system: those of the code under
 * test (rename, remove, unlink, mkdir, write, fsync) and those of SQLite (write, truncate, unlink).
 */

namespace crash_point {

/** Run work() in a child process that ends before its nth change. @return false when it got through
 */
bool crashes(int nth, const std::function<void()> &work);

/** The same in this process, failing the nth change with EIO instead, once. */
void fail_change(int nth);

/** @return whether a change has failed since fail_change() */
bool stop_failing();

} // namespace crash_point

#endif
