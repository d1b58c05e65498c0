#ifndef KT_TESTS_FAULT_SCENE_H
#define KT_TESTS_FAULT_SCENE_H

#include <string>

/*
 * Gateways as folders below KT_ROOT, made once and copied for each attempt. Conductor only.
 */

namespace scene {

enum class kind {
    EMPTY,    /* only what is installed */
    BOOTED,   /* applied configuration, nothing in /run */
    EDITED,   /* and a working copy with edits that are not applied */
    OUTDATED, /* and another schema than the one installed, half a migration beside it */
    LARGE     /* an edited one with sixty devices */
};

/** A configuration file with sixty devices. */
std::string large_file();

/** A folder in memory, where there is one, for everything; goes with clear(). */
std::string make_folder();
void clear(const std::string &folder);

/** Make a gateway with one port in a process of its own, so that this one stays as it is. */
void make(kind which, const std::string &root);

/** Make the folder anew as a copy of another. */
void copy(const std::string &from, const std::string &to);

/** Let everything in this process see that gateway. */
void enter(const std::string &root);

/**
 * The rows of the applied configuration and of the working copy; text that begins with "damaged"
 * when one of them is not whole.
 */
std::string content(const std::string &root);

} // namespace scene

#endif
