#ifndef KT_CORE_NO_MEMORY_H
#define KT_CORE_NO_MEMORY_H

#include "core/log.h"

#include <new>
#include <type_traits>

/**
 * The result of work(), or the other one when memory runs out inside (logged under the caller's
 * name): texts allocate, and an exception that left a thread would end the service.
 */
template <typename Work>
std::invoke_result_t<Work> unless_no_memory(const char *function,
                                            std::type_identity_t<std::invoke_result_t<Work>> other,
                                            Work work,
                                            int line = __builtin_LINE()) {
    try {
        return work();
    } catch (const std::bad_alloc &) {
        log_write_error(function, line, "malloc fail\n");
        return other;
    }
}

#endif
