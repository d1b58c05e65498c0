#ifndef KT_CORE_LOG_H
#define KT_CORE_LOG_H

/*
 * Diagnostic messages on standard error, filtered by a process-wide level.
 *
 * THREAD SAFETY: any thread; a message is never mixed with another one.
 */

enum log_level {
    LOG_LEVEL_ALL = 0,
    LOG_LEVEL_TRACE = 1,
    LOG_LEVEL_DEBUG = 2,
    LOG_LEVEL_INFO = 3,
    LOG_LEVEL_WARN = 4,
    LOG_LEVEL_ERROR = 5,
    LOG_LEVEL_FATAL = 6,
    LOG_LEVEL_OFF = 7
};

/** The process-wide level, LOG_LEVEL_WARN unless set. */
int log_current_level();

void log_set_level(int level);

/** Name of a level, e.g. "WARN"; nullptr outside 0 to 7. */
const char *log_level_name(int level);

/** The first level whose name the text begins with ("ERROR42" is 5), else the current level. */
int log_level_from_text(const char *text);

/** Set the level from KT_CANOPEN_XLOG_USER_LEVEL; unset or unknown keeps it. */
void log_init_from_environment();

/**
 * Write "\e[91mERROR: function(line): ", the formatted message as it stands and "\e[0m".
 * Nothing is written at level FATAL and OFF. errno is preserved.
 */
void log_write_error(const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/** A macro because only the caller knows its name and line. */
#define log_error(...) log_write_error(__func__, __LINE__, __VA_ARGS__)

#endif
