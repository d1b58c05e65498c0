#ifndef KT_DX_MQTT_SECRET_FILE_H
#define KT_DX_MQTT_SECRET_FILE_H

#include <string>

/*
 * A file with a secret must be a regular file that belongs to root or to the user who runs the
 * bridge, and neither writable by its group nor open to others. Its group may read it only when it
 * belongs to root and the group is root's or one of the bridge's own.
 */

/**
 * Read a secret of one line; the line's end is left out.
 *
 * @param[out] problem  what is wrong and the way out, set on failure only; never a part of the
 * secret
 * @retval  0  read
 * @retval -1  refused
 */
int read_secret(const std::string &file, std::string &secret, std::string &problem);

/** As read_secret() for a file that another library reads, such as a key. */
int check_secret(const std::string &file, std::string &problem);

#endif
