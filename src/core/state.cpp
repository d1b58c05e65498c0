#include "core/state.h"

#include <cstdlib>

std::atomic<int32_t> g_stop_requested{0};
std::atomic<int32_t> can_proprietary_restart{0};
char **g_can_port_list = nullptr;
std::atomic<int32_t> g_can_port_count{0};
can_module *g_can_module_list = nullptr;

const char *can_port_name(int32_t port_index) {
    if (g_can_port_list == nullptr || port_index < 0 ||
        port_index >= g_can_port_count.load(std::memory_order_relaxed)) {
        return nullptr;
    }
    return g_can_port_list[port_index];
}

std::string rooted_path(const char *path) {
    const char *root = getenv("KT_ROOT");
    return root == nullptr ? path : std::string(root) + path;
}
