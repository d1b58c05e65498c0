#ifndef KT_CONFIG_DATABASE_FILES_H
#define KT_CONFIG_DATABASE_FILES_H

#include <cstdint>
#include <string>

/*
 * Life of the database files: seed, migration, apply, discard, change detection.
 *
 *   shipped schema --> default database --> persistent database --> working copy (RAM)
 *                                                   ^---- apply -------'
 *
 * Every file is replaced in one step, and in an order that leaves the old or the new configuration
 * whole whenever power fails; see docs/decisions.
 *
 * THREAD SAFETY: can_proprietary_db_init_user_config() belongs to the main thread between passes;
 * the rest may be called from any thread.
 */

/** Paths with the KT_ROOT prefix applied. */
std::string shipped_schema_path();
std::string saved_schema_path();
std::string default_db_path();
std::string persistent_db_path();
std::string working_db_path();

/**
 * Prepare the databases before a pass: create, migrate or copy what is missing or outdated.
 * @retval  0  the working copy stands
 * @retval -1  failed (logged)
 */
int can_proprietary_db_init_user_config();

/** Save the working copy. Does not restart anything. @retval 0 saved @retval -5 failed (logged) */
int can_proprietary_conf_apply();

/** Reload the working copy. @retval 0 reloaded @retval -5 failed (logged) */
int can_proprietary_conf_discard();

/** Remember the working copy's modification time as unchanged. @retval 0 @retval -1 (logged) */
int can_proprietary_db_update_ram_modified_time();

/**
 * Whether the working copy was written since the last start-up, apply or discard. Times are whole
 * seconds: a write in the same second is not seen.
 *
 * @param[out] changed  0 or 1, untouched on failure
 * @retval 0 @retval -1 the time cannot be read (logged)
 */
int can_proprietary_db_get_ram_modified(int *changed);

/** Remove the default, persistent and working databases, in this order; failures are ignored. */
void remove_all_databases();

#endif
