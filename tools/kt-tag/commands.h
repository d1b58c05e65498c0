#ifndef KT_TAG_COMMANDS_H
#define KT_TAG_COMMANDS_H

#include <cstdint>

/** What the command line asks for. */
struct tag_options {
    const char *pattern = nullptr; // nullptr for all tags
    const char *name = nullptr;
    const char *value = nullptr;
    bool json = false;
    bool initial = false;    // watch: print what is there before the changes
    uint64_t count = 0;      // lines to print, 0 for no limit
    int64_t timeout_ms = -1; // negative for no limit
};

// Each returns the exit status: 0, or 1 with the reason on standard error.
int list_tags(const tag_options &options);
int get_tag(const tag_options &options);
int set_tag(const tag_options &options);

/** Ends with 0 on SIGINT and SIGTERM, and with 1 when the time is up before count lines came. */
int watch_tags(const tag_options &options);

#endif
