#ifndef KT_SOFTCAN_WORLDS_H
#define KT_SOFTCAN_WORLDS_H

#include <string>
#include <sys/types.h>
#include <vector>

/*
 * Where worlds are found: one socket file per world in a folder of the user's own.
 */
namespace softcan {

struct world_entry {
    std::string name;
    std::string path;
};

/** The folder of this user's worlds: KT_SOFTCAN_DIR, else /tmp/kt-softcan-<uid>. */
std::string worlds_folder();

/** Worlds whose hub answers, sorted by name. Socket files that nobody serves are removed. */
std::vector<world_entry> running_worlds();

/**
 * Path of the world a command is meant for.
 *
 * @param wanted  name or path given by the user, empty for none: then KT_SOFTCAN if use_environment
 *                is set and it is not empty, else the only world running
 * @return empty with *problem filled in when there is no such world or the choice is not clear
 */
std::string choose_world(const std::string &wanted, bool use_environment, std::string *problem);

/**
 * Create a listening socket for a new world.
 *
 * @param wanted    name or path, empty for a name made from the process id
 * @param[out] path where it listens
 * @return descriptor (close-on-exec), or -1 with *problem filled in
 */
int create_world(const std::string &wanted, std::string *path, std::string *problem);

} // namespace softcan

#endif
