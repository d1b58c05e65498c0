#include "server.h"

#include "answer.h"
#include "guards.h"
#include "judge.h"
#include "report.h"
#include "request.h"

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <microhttpd.h>
#include <pthread.h>
#include <sys/stat.h>

namespace {

constexpr std::chrono::seconds farewell_time(2);
constexpr char tls_priorities[] = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";

/** What libmicrohttpd complains about while it starts; later complaints are about clients. */
struct start_log {
    std::mutex mutex;
    char text[256] = ""; // guarded by mutex; the first one
    bool is_open = true; // guarded by mutex
};

} // namespace

struct rest_server {
    route_table routes;
    judge_rules rules = {};
    address_text address = {};
    start_log log;
    MHD_Daemon *daemon = nullptr;
    size_t bodies_bytes = 0; // server thread only
    std::mutex mutex;
    std::condition_variable changed;
    bool is_stopping = false; // guarded by mutex
    bool is_running = false;  // guarded by mutex: a handler
    int leaving = 0;          // guarded by mutex: answers of handlers under way
};

namespace {

bool enter_handler(rest_server &server) {
    const std::lock_guard lock(server.mutex);
    if (server.is_stopping) {
        return false;
    }
    server.is_running = true;
    ++server.leaving;
    return true;
}

void leave_handler(rest_server &server) {
    const std::lock_guard lock(server.mutex);
    server.is_running = false;
    server.changed.notify_all();
}

MHD_Result refuse(MHD_Connection *connection, rest_request &request, int status) {
    request.is_answered = true;
    return answer_send_error(connection, status, request.methods);
}

// A body that is on its way is swallowed before a refusal: a connection that is closed over unread
// bytes may take the answer with it. Not where the client waits for it, and not where the body is
// too long or has no certain end.
bool is_refused_at_once(const request_head &head, int refusal) {
    return refusal != 0 &&
           (refusal == 400 || head.expect || announced_length(head) > REST_BODY_MAX);
}

MHD_Result
begin(rest_server &server, MHD_Connection *connection, rest_request &request, const char *method) {
    const request_head head = read_head(connection);
    request.is_judged = true;
    request.refusal = judge(server.rules, head, method, request);
    return is_refused_at_once(head, request.refusal) ? refuse(connection, request, request.refusal)
                                                     : MHD_YES;
}

MHD_Result answer(rest_server &server, MHD_Connection *connection, rest_request &request) {
    if (request.refusal != 0) {
        return refuse(connection, request, request.refusal);
    }
    if (!enter_handler(server)) {
        return refuse(connection, request, 503);
    }
    rest_answer written;
    const char *body = request.body_length > 0 ? request.body : nullptr;
    request.is_answered = true;
    request.is_leaving = true;
    const int status =
        answer_run(request.callback, request.uri, body, request.body_length, written);
    request_drop_body(request, server.bodies_bytes);
    const MHD_Result result = answer_send(connection, status, written);
    leave_handler(server);
    return result;
}

// Called for the head of a request, for every piece of its body, and at its end.
MHD_Result on_request(void *context,
                      MHD_Connection *connection,
                      const char * /*path*/,
                      const char *method,
                      const char * /*version*/,
                      const char *data,
                      size_t *length,
                      void **state) {
    auto &server = *static_cast<rest_server *>(context);
    auto *request = static_cast<rest_request *>(*state);
    if (!request) {
        return MHD_NO; // no memory for it
    }
    if (!request->is_judged) {
        return begin(server, connection, *request, method);
    }
    if (*length > 0) {
        const int result = request_take(*request, server.bodies_bytes, data, *length);
        *length = 0;
        return result == 0 ? MHD_YES : MHD_NO;
    }
    return request->is_answered ? MHD_YES : answer(server, connection, *request);
}

void *on_target(void * /*context*/, const char *target, MHD_Connection * /*connection*/) {
    return request_new(target);
}

void on_completed(void *context,
                  MHD_Connection * /*connection*/,
                  void **state,
                  MHD_RequestTerminationCode /*reason*/) {
    auto &server = *static_cast<rest_server *>(context);
    auto *request = static_cast<rest_request *>(*state);
    *state = nullptr;
    if (request && request->is_leaving) {
        const std::lock_guard lock(server.mutex);
        --server.leaving;
        server.changed.notify_all();
    }
    request_free(request, server.bodies_bytes);
}

// The thread gets its first name from libmicrohttpd. This runs on it before any request does.
MHD_Result on_connect(void * /*context*/, const sockaddr * /*client*/, socklen_t /*length*/) {
    thread_local bool is_named = false;
    if (!is_named) {
        (void)pthread_setname_np(pthread_self(), "rest"); // cannot fail: short, and our own thread
        is_named = true;
    }
    return MHD_YES;
}

[[gnu::format(printf, 2, 0)]] void on_log(void *context, const char *format, va_list arguments) {
    auto &log = *static_cast<start_log *>(context);
    const std::lock_guard lock(log.mutex);
    if (log.is_open && log.text[0] == '\0') {
        (void)vsnprintf(log.text, sizeof log.text, format, arguments); // may be cut
        log.text[strcspn(log.text, "\n")] = '\0';
    }
}

/** While it lives, threads that are started take no signals but those of their own faults. */
class signals_blocked {
public:
    signals_blocked() {
        sigset_t blocked;
        (void)sigfillset(&blocked); // none of these can fail
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP}) {
            (void)sigdelset(&blocked, fault);
        }
        (void)pthread_sigmask(SIG_SETMASK, &blocked, &before_);
    }
    signals_blocked(const signals_blocked &) = delete;
    signals_blocked &operator=(const signals_blocked &) = delete;
    ~signals_blocked() { (void)pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_;
};

template <typename T>
intptr_t as_number(T *function) {
    return reinterpret_cast<intptr_t>(function);
}

MHD_Daemon *start_daemon(rest_server &server, const rest_settings &settings, int socket) {
    const bool is_tls = !settings.certificate.empty();
    const auto text = [](const char *pem) { return const_cast<char *>(pem); }; // only read
    const MHD_OptionItem options[] = {
        {MHD_OPTION_EXTERNAL_LOGGER, as_number(on_log), &server.log},
        {MHD_OPTION_URI_LOG_CALLBACK, as_number(on_target), nullptr},
        {MHD_OPTION_NOTIFY_COMPLETED, as_number(on_completed), &server},
        {MHD_OPTION_LISTEN_SOCKET, socket, nullptr},
        {MHD_OPTION_CONNECTION_LIMIT, REST_CONNECTIONS_MAX, nullptr},
        {MHD_OPTION_PER_IP_CONNECTION_LIMIT, REST_ADDRESS_CONNECTIONS_MAX, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, REST_IDLE_SECONDS, nullptr},
        {MHD_OPTION_CONNECTION_MEMORY_LIMIT, REST_HEADER_MEMORY, nullptr},
        {MHD_OPTION_STRICT_FOR_CLIENT, 1, nullptr},
        {is_tls ? MHD_OPTION_HTTPS_MEM_CERT : MHD_OPTION_END,
         0,
         text(settings.certificate.c_str())},
        {MHD_OPTION_HTTPS_MEM_KEY, 0, text(settings.key.c_str())},
        {MHD_OPTION_HTTPS_PRIORITIES, 0, text(tls_priorities)},
        {MHD_OPTION_END, 0, nullptr},
    };
    const unsigned tls = is_tls ? unsigned{MHD_USE_TLS} : 0;
    // With epoll the close that comes with a cut-off request is lost, and the connection stays
    // until it has idled: 32 aborted requests would keep their address out for that long.
    const unsigned flags = unsigned{MHD_USE_POLL_INTERNAL_THREAD} | unsigned{MHD_USE_ERROR_LOG};
    const signals_blocked guard;
    return MHD_start_daemon(flags | tls,
                            0, // the socket is bound already
                            on_connect,
                            nullptr,
                            on_request,
                            &server,
                            MHD_OPTION_ARRAY,
                            options,
                            MHD_OPTION_END);
}

// Hands the socket to a new daemon. On failure the daemon has closed it, or not, depending on where
// it failed.
int start_on(rest_server &server, const rest_settings &settings, int socket) {
    struct stat before;
    struct stat after;
    const bool is_known = fstat(socket, &before) == 0;
    server.daemon = start_daemon(server, settings, socket);
    const std::lock_guard lock(server.log.mutex);
    server.log.is_open = false;
    if (server.daemon) {
        return REST_OK;
    }
    report("cannot start on %s%s: %s",
           server.address.text,
           settings.certificate.empty() ? "" : " with KT_REST_TLS_CERT and KT_REST_TLS_KEY",
           server.log.text[0] != '\0' ? server.log.text : "no reason given");
    if (is_known && fstat(socket, &after) == 0 && before.st_ino == after.st_ino &&
        before.st_dev == after.st_dev) {
        (void)close(socket); // carries no data
    }
    return REST_NO_SERVER;
}

} // namespace

int server_start(const char *service, const rest_settings &settings, rest_server **out) {
    listen_address address = settings.address;
    auto server = std::make_unique<rest_server>();
    server->rules = {"/" + std::string(service),
                     settings.token,
                     address_format(address).host,
                     address_is_loopback(address),
                     &server->routes};
    const int socket = address_listen(address);
    if (socket < 0) {
        report("cannot listen on %s: %s", address_format(address).text, strerror(errno));
        return REST_NO_SERVER;
    }
    server->address = address_format(address);
    const int result = start_on(*server, settings, socket);
    if (result == REST_OK) {
        *out = server.release();
    }
    return result;
}

route_table &server_routes(rest_server &server) {
    return server.routes;
}

const address_text &server_address(const rest_server &server) {
    return server.address;
}

void server_stop(rest_server *server) {
    const unique_fd socket(MHD_quiesce_daemon(server->daemon));
    {
        std::unique_lock lock(server->mutex);
        server->is_stopping = true;
        server->changed.wait(lock, [&] { return !server->is_running; });
        (void)server->changed.wait_for(lock, farewell_time, [&] { return server->leaving == 0; });
    }
    MHD_stop_daemon(server->daemon);
    delete server;
}
