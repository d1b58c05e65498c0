#ifndef KT_REST_SETTINGS_H
#define KT_REST_SETTINGS_H

#include "address.h"

#include <string>

/** What the environment says. */
struct rest_settings {
    listen_address address;
    std::string token;       // empty: none needed
    std::string certificate; // PEM text, empty: no TLS
    std::string key;
};

/**
 * Read the environment and the files it names.
 * @retval REST_OK
 * @retval REST_BAD_SETTING  reported; out is not complete
 *
 * Throws std::bad_alloc.
 */
int settings_read(rest_settings &out);

#endif
