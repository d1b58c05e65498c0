#ifndef PROGRAM_OUTPUT_H
#define PROGRAM_OUTPUT_H

#include <string>
#include <string_view>

/*
 * What every program writes: data on standard output, problems on standard error as "NAME: text".
 * One thread.
 */
namespace program {

inline constexpr int status_done = 0;
inline constexpr int status_failed = 1; // what was asked for failed or is not there
inline constexpr int status_usage = 2;

/**
 * Name the program in its messages, and occupy descriptors 0 to 2 where they are closed: a file
 * opened later would get what is printed.
 */
void begin(const char *name);

/** A closed pipe then shows as a failed write. Programs that are started inherit this. */
void ignore_closed_pipes();

/** Print "NAME: text" on standard error. @return status */
int complain(int status, std::string_view text);

/** complain() with a second line that says where help is. @return status */
int complain_of_usage(std::string_view text, int status = status_usage);

/**
 * Print a text and flush it.
 * @return false when standard output takes no more; the reason is kept for output_status()
 */
bool print(std::string_view text);

/** True when nobody reads standard output any more. */
bool output_abandoned();

/** Exit status for the end of the program: 0, or 1 after a write error (told now). A reader that
 * went away has seen what it wanted: 0. */
int output_status();

} // namespace program

#endif
