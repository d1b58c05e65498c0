#ifndef KT_REST_ADDRESS_H
#define KT_REST_ADDRESS_H

#include <string_view>
#include <sys/socket.h>

/** Where the server listens. */
struct listen_address {
    sockaddr_storage storage;
    socklen_t length;
};

/** An address as text: "127.0.0.1:8080", "[::1]:8080". */
struct address_text {
    char host[64]; // with brackets where it has them
    char text[80];
};

/** Read HOST:PORT in the forms of KT_REST_LISTEN. 0, or -1 and out untouched. */
int address_parse(std::string_view text, listen_address &out);

/** Whether only this machine can reach it. */
bool address_is_loopback(const listen_address &address);

address_text address_format(const listen_address &address);

/**
 * Open a listening socket, which gives port 0 its real number in address.
 * @return its descriptor, -1 on failure with errno
 */
int address_listen(listen_address &address);

#endif
