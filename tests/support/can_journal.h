#ifndef KT_TESTS_CAN_JOURNAL_H
#define KT_TESTS_CAN_JOURNAL_H

#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

/*
 * What the code under test did to its surroundings, in the order in which it did it: one line per
 * call of a double, the first word naming the kind. Not for several threads at once.
 */

using can_lines = std::vector<std::string>;

void can_note(std::string line);

/** All lines so far; empties the journal. */
can_lines can_take_lines();

/** The lines of some kinds, without their order relative to the others; empties the journal. */
can_lines can_take_lines(std::initializer_list<const char *> kinds);

/** Bytes as lower-case hexadecimal text. */
std::string can_hex(std::span<const uint8_t> bytes);

#endif
