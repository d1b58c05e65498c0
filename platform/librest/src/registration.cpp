#include "answer.h"
#include "guards.h"
#include "report.h"
#include "rooted.h"
#include "server.h"

#include <kt/rest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>

/*
 * THREAD SAFETY. The lock guards which server there is. No handler runs and nothing waits under it.
 */

namespace {

struct running_server {
    rest_server *server; // nullptr: none
    int handle;
    char address_file[PATH_MAX]; // empty: none
};

std::mutex running_mutex;
running_server running = {nullptr, 0, ""}; // guarded by running_mutex

bool is_service_name(std::string_view name) {
    constexpr std::string_view letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                         "0123456789._-";
    return !name.empty() && name.size() <= REST_SERVICE_MAX && name[0] != '.' &&
           name.find_first_not_of(letters) == name.npos;
}

int write_address(const char *path, const char *address) {
    path_text temporary;
    const int length = snprintf(temporary.text, sizeof temporary.text, "%s.%d", path, getpid());
    if (length < 0 || static_cast<size_t>(length) >= sizeof temporary.text) {
        errno = ENAMETOOLONG;
        return -1;
    }
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC;
    const unique_fd file(open(temporary.text, flags, 0644));
    if (!file || dprintf(file.get(), "%s\n", address) < 0 || rename(temporary.text, path) != 0) {
        const int reason = errno;
        (void)unlink(temporary.text); // need not be there
        errno = reason;
        return -1;
    }
    return 0;
}

// A server without its file is still a server.
void publish_address(const char *service, running_server &server) {
    const char *address = server_address(*server.server).text;
    char name[sizeof "/run/kt-rest/.address" + REST_SERVICE_MAX];
    (void)snprintf(name, sizeof name, "/run/kt-rest/%s.address", service); // fits
    const path_text path = rooted(name);
    if (make_folders(rooted("/run/kt-rest").text) != 0 || write_address(path.text, address) != 0) {
        report("cannot write %s: %s", path.text, strerror(errno));
        return;
    }
    memcpy(server.address_file, path.text, sizeof server.address_file);
}

int start(const char *service) {
    rest_settings settings = {};
    const int result = settings_read(settings);
    return result == REST_OK ? server_start(service, settings, &running.server) : result;
}

} // namespace

int rest_init(const char *service_name, void **handle_out) {
    if (!service_name || !is_service_name(service_name)) {
        return REST_BAD_ARGUMENT;
    }
    const std::lock_guard lock(running_mutex);
    if (running.server) {
        return REST_ALREADY_THERE;
    }
    try {
        const int result = start(service_name);
        if (result != REST_OK) {
            return result;
        }
    } catch (const std::bad_alloc &) {
        report("out of memory");
        return REST_NO_MEMORY;
    }
    running.handle = running.handle < INT_MAX ? running.handle + 1 : 1;
    running.address_file[0] = '\0';
    publish_address(service_name, running);
    if (handle_out) {
        *handle_out = running.server;
    }
    return running.handle;
}

int rest_cb_register(int handle, const char *path, int method, rest_callback callback) {
    const std::lock_guard lock(running_mutex);
    if (!path || !running.server || handle != running.handle) {
        return REST_BAD_ARGUMENT;
    }
    return routes_add(server_routes(*running.server), path, method, callback);
}

void rest_cleanup(void) {
    if (answer_in_handler()) {
        report("rest_cleanup() was called from a handler and does nothing");
        return;
    }
    running_server stopping = {nullptr, 0, ""};
    {
        const std::lock_guard lock(running_mutex);
        stopping = running;
        running.server = nullptr;
    }
    if (stopping.address_file[0] != '\0' && stopping.server) {
        (void)unlink(stopping.address_file); // somebody else may have cleaned up
    }
    if (stopping.server) {
        server_stop(stopping.server);
    }
}
