#ifndef KT_REST_H
#define KT_REST_H

#include <stddef.h>

/*
 * REST server: HTTP/1.1 with JSON answers and file downloads for one service.
 *
 * THREAD SAFETY. Handlers run one at a time on the library's own thread, named "rest", which takes
 * no signals, with no lock held. A handler starts when the whole request has arrived, so slow
 * clients delay nobody; a handler that blocks delays every client. rest_init() and rest_cleanup()
 * are for one thread at a time, the other calls for any.
 *
 * SETTINGS come from the environment, read by rest_init(). An empty variable counts as unset. Paths
 * in them are taken as they stand, without KT_ROOT.
 *
 *   KT_REST_LISTEN          HOST:PORT, [IPv6]:PORT, or :PORT for every IPv4 address; "[::]:PORT" is
 *                           every address of both families. HOST is an IPv4 address or "localhost"
 *                           (127.0.0.1). Port 0 takes any free one. Default 127.0.0.1:8080.
 *   KT_REST_TOKEN_FILE      file with the token that every request must carry as
 *                           "Authorization: Bearer <token>". A regular file that others (mode
 *                           bits o+rwx) cannot touch, with one line of visible ASCII, 4096 bytes
 *                           at most.
 *   KT_REST_TLS_CERT        PEM files of the certificate chain and the private key; both or
 *   KT_REST_TLS_KEY         neither. The key must not be open to others either.
 *   KT_REST_ALLOW_INSECURE  "1" permits an address beyond loopback without a token.
 *
 * The chosen address, as HOST:PORT, stands in /run/kt-rest/<service>.address below KT_ROOT while
 * the server runs. Failures are told in single lines on standard error that begin with "kt-rest: ";
 * a good start says nothing. The token is never among them.
 *
 * WHO MAY ASK. Without a token, a page from elsewhere in a user's browser must not reach the
 * server: an Origin header has to name the host that the request addresses, and a server on a
 * loopback address accepts only the hosts "localhost", "127.0.0.1", "[::1]" and that address, with
 * any port. Else 403. With a token, any Host and Origin will do, and a wrong token gets 401.
 *
 * ANSWERS THAT THE LIBRARY GIVES ITSELF are {"error":{"code":<HTTP status>,"message":"..."}}:
 *   400  doubled or contradictory headers about host, client or length; a coding but "chunked"
 *   401  no token or a wrong one, with WWW-Authenticate
 *   403  see above
 *   404  path not registered
 *   405  registered, but not with that method (OPTIONS included), with Allow
 *   413  body above REST_BODY_MAX; refused before it is read where its length is announced
 *   500  the handler failed to give an HTTP status from 200 to 599
 *   503  no memory; bodies under way take REST_BODIES_MAX bytes and this one would be above 64 KiB;
 *        or the server is stopping
 * What is no HTTP request at all is answered by libmicrohttpd with 400, 413, 414, 431 or 505 and
 * HTML.
 */

#ifdef __cplusplus
extern "C" {
#endif

enum {
    REST_BODY_MAX = 8 * 1024 * 1024,     /* bytes of a request body: room for configuration files */
    REST_BODIES_MAX = 4 * REST_BODY_MAX, /* bytes of all bodies under way */
    REST_SERVICE_MAX = 64,               /* bytes of a service name without terminator */
    REST_PATH_MAX = 128,                 /* bytes of a registered path without terminator */
    REST_ROUTES_MAX = 64,                /* registrations */
    REST_CONNECTIONS_MAX = 64,           /* at once; the next ones wait */
    REST_ADDRESS_CONNECTIONS_MAX = 32,   /* at once from one address; the next ones are closed */
    REST_HEADER_MEMORY = 32 * 1024,      /* bytes a connection has for request line and headers */
    REST_IDLE_SECONDS = 10,              /* without progress, after which a connection is closed */
    REST_DOWNLOAD_NAME_MAX = 255,        /* bytes of a download's name */
    REST_PARTS_MAX = 64,                 /* parts of a multipart body */
    REST_PART_HEADERS_MAX = 8 * 1024,    /* bytes of one part's headers */
    REST_BOUNDARY_MAX = 70               /* bytes of a multipart boundary */
};

enum rest_method {
    REST_POST = 1,
    REST_GET = 2, /* HEAD requests come as GET, too; their answer's body stays at home */
    REST_PUT = 3,
    REST_PATCH = 4,
    REST_DELETE = 5
};

enum rest_result {
    REST_OK = 0,
    REST_BAD_ARGUMENT = -1,
    REST_NO_MEMORY = -2,
    REST_BAD_SETTING = -3,    /* the environment, or a file that it names; said on standard error */
    REST_NO_SERVER = -4,      /* cannot listen or start; said on standard error */
    REST_ALREADY_THERE = -5,  /* the server runs already, or that path has that method already */
    REST_TABLE_FULL = -6,     /* REST_ROUTES_MAX registrations */
    REST_NOT_IN_HANDLER = -7, /* no handler is running on this thread */
    REST_NOT_FOUND = -8,      /* no such query parameter */
    REST_TOO_LONG = -9,       /* does not fit the caller's buffer or a bound above */
    REST_BAD_ENCODING = -10,  /* malformed percent sign, or a zero byte */
    REST_BAD_BODY = -11       /* not multipart, or cut off */
};

/**
 * Handler of one registration.
 *
 * @param uri          path with base, and query, as sent: percent signs are not decoded
 * @param body         the whole body, body_length bytes (it may hold zero bytes) and a terminating
 *                     zero; NULL when the request carries none
 * @return HTTP status of the answer, 200 to 599. The body is what rest_write() or rest_write_file()
 *         last took; none when neither was called, and never with 204 and 304.
 *
 * Arguments are valid during the call. Must not call rest_cleanup(). An exception that leaves it
 * is answered with 500.
 */
typedef int (*rest_callback)(const char *uri, const char *body, size_t body_length);

/**
 * Start the server. Paths are answered as soon as they are registered.
 *
 * @param service_name     base of every path, "/<service_name>": letters, digits, ".", "_", "-",
 *                         not starting with ".", at most REST_SERVICE_MAX bytes
 * @param[out] handle_out  may be NULL, else gets an opaque value, not NULL, of no further use;
 *                         untouched on failure
 * @return handle, positive
 * @retval REST_BAD_ARGUMENT, REST_NO_MEMORY, REST_BAD_SETTING, REST_NO_SERVER, REST_ALREADY_THERE
 */
int rest_init(const char *service_name, void **handle_out);

/**
 * Let a handler answer a path and method.
 *
 * The path answers exactly, or followed by "/" and more. The longest registered path that matches
 * decides, whatever its methods: "/traffic-export" is not "/traffic".
 *
 * @param path    below the base: begins with "/", does not end with it, visible ASCII without "?",
 *                "#" and "%", at most REST_PATH_MAX bytes; copied
 * @param method  rest_method
 * @retval REST_OK
 * @retval REST_BAD_ARGUMENT   also: not the handle of the running server
 * @retval REST_ALREADY_THERE, REST_TABLE_FULL
 */
int rest_cb_register(int handle, const char *path, int method, rest_callback callback);

/**
 * Stop the server: waits for the running handler, gives its answer two seconds to leave, closes
 * every connection and forgets the registrations. Nothing happens without a server or from a
 * handler.
 */
void rest_cleanup(void);

/**
 * Answer with JSON text; copied, and replaces what the handler wrote before.
 *
 * @param text  length bytes; NULL only with length 0
 * @retval REST_OK
 * @retval REST_BAD_ARGUMENT, REST_NO_MEMORY, REST_NOT_IN_HANDLER; what was written before stays
 */
int rest_write(const char *text, size_t length);

/**
 * Answer with a file download of type text/csv; copied, and replaces what the handler wrote before.
 *
 * @param download_name  printable ASCII, 1 to REST_DOWNLOAD_NAME_MAX bytes
 * @param data           length bytes; NULL only with length 0
 * @retval REST_OK
 * @retval REST_BAD_ARGUMENT, REST_NO_MEMORY, REST_NOT_IN_HANDLER; what was written before stays
 */
int rest_write_file(const char *download_name, const void *data, size_t length);

/**
 * Value of a query parameter, percent-decoded; "+" stays a plus sign.
 *
 * Names are compared as sent, whole and with case; the first of that name counts. A parameter
 * without "=" has an empty value.
 *
 * @param[out] value  room for size bytes, terminator included; untouched on failure
 * @retval REST_OK
 * @retval REST_BAD_ARGUMENT, REST_NOT_FOUND, REST_TOO_LONG, REST_BAD_ENCODING
 */
int rest_find_uri_query_val(const char *uri, const char *name, char *value, size_t size);

/** One part of a multipart body. The texts end with it, the data belongs to the body. */
struct mp_part {
    char *name;       /* from Content-Disposition, without quotes; NULL when it has none */
    char *filename;   /* likewise; not checked in any way: no path of ours */
    char *headers;    /* header lines as sent, without the empty line; "" when there are none */
    const char *data; /* inside the body given to mp_parse(), no terminator */
    size_t length;
    struct mp_part *next;
};

/**
 * Take the boundary from the first line of a multipart body, "--BOUNDARY".
 *
 * @param[out] boundary  heap text for the caller to free(); untouched on failure
 * @retval REST_OK
 * @retval REST_BAD_ARGUMENT, REST_NO_MEMORY
 * @retval REST_BAD_BODY  no such line, or not 1 to REST_BOUNDARY_MAX visible ASCII bytes
 */
int parse_boundary(char **boundary, const char *body);

/**
 * Split a multipart body. Lines may end with CR LF or LF; what stands before the first and behind
 * the closing delimiter is skipped. Any bytes may be given.
 *
 * @param[out] parts  in the body's order, NULL when it has none; release with mp_free_all_parts()
 *                    before the body. Untouched on failure.
 * @retval REST_OK
 * @retval REST_BAD_ARGUMENT, REST_NO_MEMORY
 * @retval REST_BAD_BODY  no delimiter, no closing delimiter, a part without the empty line behind
 *                        its headers, a zero byte in headers
 * @retval REST_TOO_LONG  more than REST_PARTS_MAX parts or REST_PART_HEADERS_MAX bytes of headers
 */
int mp_parse(struct mp_part **parts,
             const char *boundary,
             size_t boundary_length,
             const char *body,
             size_t body_length);

/** Release parts; NULL is accepted. */
void mp_free_all_parts(struct mp_part *parts);

#ifdef __cplusplus
}
#endif

#endif
