#ifndef KT_TESTS_FAULT_CLIENT_H
#define KT_TESTS_FAULT_CLIENT_H

#include <string>

/*
 * What the conductor does to the service and sees of it.
 */

struct http_request {
    const char *method;
    std::string path; /* below /CAN-proprietary */
    std::string body = {};
    const char *type = "application/json";
};

struct http_answer {
    int status = 0; /* 0: the connection ended without one */
    std::string body = {};
};

/**
 * Send a request to the server of the gateway at that folder.
 *
 * @param patience_ms  after which late() is called once, and the wait goes on
 */
http_answer ask(const std::string &root,
                const http_request &request,
                int patience_ms = 0,
                void (*late)() = nullptr);

/** Whether a server has said where it listens. */
bool has_server(const std::string &root);

/**
 * Wait until every other thread of this process sleeps, no child runs and nothing has been counted
 * since, or what runs asks for memory in vain. @return false when that has not come to pass in ten
 * seconds
 */
bool settle();

/** Number of the thread of that name, 0 for none */
int thread_named(const char *name);

/** Descriptors that are open. */
int open_descriptors();

#endif
