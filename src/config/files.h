#ifndef KT_CONFIG_FILES_H
#define KT_CONFIG_FILES_H

#include <cstddef>
#include <string>

/* File steps of the database lifecycle. Any thread. */

/** Remove a database file with its rollback journal; whether they existed does not matter. */
void remove_database(const std::string &path);

/** Remove a file. @return false with errno set when it is there and stays */
bool remove_if_present(const std::string &path);

/**
 * Put a finished database in its place: on the disk, then renamed over the target, then the folder
 * on the disk. A rollback journal of the target goes first, so the target must be one that is given
 * up or missing. @return false with errno set on failure; the target file is then as it was
 */
bool install_file(const std::string &from, const std::string &to);

/** @return false only for a file that is certainly not there: others may be made in its place */
bool file_exists(const std::string &path);

/**
 * Read a whole text file.
 *
 * A file that yields nothing is logged and still returned, empty.
 *
 * @param[out] length  bytes read, without the terminator
 * @param[out] is_cut  whether reading failed on the way, and the text may be half of the file's
 * @return heap text with a terminator, for the caller to free(); nullptr on failure (logged)
 */
char *get_file_contents(const char *path, size_t *length, bool *is_cut = nullptr);

#endif
