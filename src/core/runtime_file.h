#ifndef KT_CORE_RUNTIME_FILE_H
#define KT_CORE_RUNTIME_FILE_H

#include "core/guards.h"

/**
 * fopen() for files in the folders below /run, whose names everybody knows. Where others may make
 * files there, a symbolic link must not lead a write of ours to another file, nor another file's
 * bytes to a client, and a FIFO must not hold a port thread up.
 *
 * @param mode  "r", "r+", "w" or "a"; the file is not inherited by child processes
 * @return nullptr with errno: that of fopen(), ELOOP for a symbolic link, ENXIO for a FIFO without
 *         a reader. A link in another place of the path is followed: the administrator made it.
 *
 * Any thread.
 */
file_ptr open_runtime_file(const char *path, const char *mode);

/** The same without the buffers of a stream, for what is opened for every frame. */
unique_fd open_runtime_fd(const char *path, const char *mode);

#endif
