#include "can_ports.h"

#include "guards.h"
#include "termination.h"

#include <kt/platform.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <new>

struct can_port {
    char name[IFNAMSIZ];
};

namespace {

constexpr const char *net_class = "/sys/class/net";
using folder_ptr = std::unique_ptr<DIR, call_on_delete<closedir>>;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Takes a run of digits off the front and returns it without leading zeros.
std::string_view take_number(std::string_view &text) {
    size_t end = 0;
    while (end < text.size() && is_digit(text[end])) {
        ++end;
    }
    std::string_view number = text.substr(0, end);
    number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
    text.remove_prefix(end);
    return number;
}

// -1, 0 or 1
int compare_natural(std::string_view left, std::string_view right) {
    while (!left.empty() && !right.empty()) {
        if (is_digit(left[0]) && is_digit(right[0])) {
            const std::string_view a = take_number(left);
            const std::string_view b = take_number(right);
            const int order = a.size() != b.size() ? (a.size() < b.size() ? -1 : 1) : a.compare(b);
            if (order != 0) {
                return order;
            }
        } else if (left[0] != right[0]) {
            return left[0] < right[0] ? -1 : 1;
        } else {
            left.remove_prefix(1);
            right.remove_prefix(1);
        }
    }
    return left.empty() ? (right.empty() ? 0 : -1) : 1;
}

/**
 * What could not be looked at for want of memory or descriptors must not pass for what is not
 * there: whoever asks for the ports may write down how many they are.
 */
void throw_for_want_of_resources() {
    if (errno == ENOMEM || errno == EMFILE || errno == ENFILE) {
        throw std::bad_alloc();
    }
}

bool is_can_interface(const char *net_folder, const char *name) {
    char path[PATH_MAX];
    const int length = snprintf(path, sizeof path, "%s/%s/type", net_folder, name);
    if (length < 0 || static_cast<size_t>(length) >= sizeof path) {
        return false;
    }
    const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file) {
        throw_for_want_of_resources();
        return false;
    }
    char text[16]{};
    return read(file.get(), text, sizeof text - 1) > 0 && strtol(text, nullptr, 10) == ARPHRD_CAN;
}

void report(std::string_view name, const char *why) {
    if (!name.empty()) {
        (void)fprintf(stderr,
                      "CAN port '%.*s' left out: %s\n",
                      static_cast<int>(std::min<size_t>(name.size(), 64)),
                      name.data(),
                      why);
    }
}

std::vector<std::string> port_names() {
    const char *list = getenv("KT_CAN_PORTS");
    return list && *list ? listed_interfaces(list) : kernel_can_interfaces(net_class);
}

void free_names(char **names) {
    for (char **name = names; name && *name; ++name) {
        free(*name);
    }
    free(names);
}

} // namespace

bool valid_interface_name(std::string_view name) {
    const auto allowed = [](char c) {
        return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               std::string_view("._:-").find(c) != std::string_view::npos;
    };
    return !name.empty() && name.size() < IFNAMSIZ && name != "." && name != ".." &&
           name[0] != '-' && std::all_of(name.begin(), name.end(), allowed);
}

bool natural_less(const std::string &left, const std::string &right) {
    const int order = compare_natural(left, right);
    return order != 0 ? order < 0 : left < right;
}

std::vector<std::string> listed_interfaces(std::string_view list) {
    std::vector<std::string> names;
    while (!list.empty()) {
        const std::string_view name = list.substr(0, list.find(','));
        list.remove_prefix(std::min(name.size() + 1, list.size()));
        if (!valid_interface_name(name)) {
            report(name, "not a usable interface name");
        } else if (std::find(names.begin(), names.end(), name) != names.end()) {
            report(name, "listed twice");
        } else {
            names.emplace_back(name);
        }
    }
    return names;
}

std::vector<std::string> kernel_can_interfaces(const char *net_folder) {
    std::vector<std::string> names;
    const folder_ptr folder(opendir(net_folder));
    if (!folder) {
        throw_for_want_of_resources();
    }
    while (const dirent *entry = folder ? readdir(folder.get()) : nullptr) {
        if (entry->d_name[0] == '.' || !is_can_interface(net_folder, entry->d_name)) {
            continue;
        }
        if (valid_interface_name(entry->d_name)) {
            names.emplace_back(entry->d_name);
        } else {
            report(entry->d_name, "not a usable interface name");
        }
    }
    std::sort(names.begin(), names.end(), natural_less);
    return names;
}

char **can_list(int selector) {
    (void)selector; // all ports are of one kind here
    try {
        const std::vector<std::string> names = port_names();
        auto **list = static_cast<char **>(calloc(names.size() + 1, sizeof(char *)));
        for (size_t i = 0; list && i < names.size(); ++i) {
            list[i] = strdup(names[i].c_str());
            if (!list[i]) {
                free_names(list);
                return nullptr;
            }
        }
        return list;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

int can_get_number(char **list) {
    int count = 0;
    while (list && list[count]) {
        ++count;
    }
    return count;
}

struct can_port *can_get(const char *name) {
    if (!name || !valid_interface_name(name)) {
        return nullptr;
    }
    try {
        const std::vector<std::string> names = port_names();
        if (std::find(names.begin(), names.end(), name) == names.end() &&
            !is_can_interface(net_class, name)) {
            return nullptr;
        }
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
    auto *port = new (std::nothrow) can_port;
    if (port) {
        (void)snprintf(port->name, sizeof port->name, "%s", name); // length checked above
    }
    return port;
}

int can_set_termination_resistor_state(struct can_port *port, int state) {
    if (!port) {
        errno = EINVAL;
        return -1;
    }
    return set_termination(port->name, state != 0);
}

void can_free(struct can_port *port) {
    delete port;
}
