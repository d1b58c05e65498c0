#ifndef KT_TESTS_CONFIGURATION_H
#define KT_TESTS_CONFIGURATION_H

#include "sudden_death.h"

#include <array>
#include <cstdint>
#include <string>

/*
 * Configurations that say themselves which one they are: every row of an imported file carries its
 * number, and so does every device that a request made. What a database holds is known to the last
 * row from a few numbers, so one that is half old and half new is seen.
 */

constexpr uint32_t most_extras = 4;

struct extra_device {
    uint32_t id;     /* of the device and of its transaction */
    uint32_t name;   /* number in its name */
    uint32_t frames; /* number in what its frame holds */
};

/** What one database holds. */
struct content {
    uint32_t imported; /* number of the file; 0: none */
    uint32_t extras;
    std::array<extra_device, most_extras> extra;
};

struct configuration {
    uint32_t counter; /* numbers given out so far */
    content working;
    content persistent;
};

/** A request, the status that says it was done, and what it leaves. */
struct step {
    const char *method;
    std::string path; /* behind the base path */
    std::string body;
    int done;
    configuration after;
};

step next_step(dice &random, const configuration &now);

/** Boundary of the bodies of imports. */
constexpr const char *import_boundary = "kt-boundary";

/** The rows of a database as text, to the last one. */
std::string rows_of(const content &holds);

/**
 * The rows that a database file holds. Reads a copy: what a dead process left half done stays for
 * the next start to deal with.
 * @param scratch  path for the copy
 */
std::string rows_in(const std::string &database, const std::string &scratch);

/** Short, for messages: "7 +x9/12 +x10/10" */
std::string brief(const content &holds);

#endif
