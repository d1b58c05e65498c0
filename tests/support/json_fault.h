#ifndef KT_TESTS_JSON_FAULT_H
#define KT_TESTS_JSON_FAULT_H

#include "fault_countdown.h"

#include <string>

/* Failing calls of the JSON library that build values or write them as text. One thread. */

namespace json_fault {

/** Let the nth call that builds something fail; 1 is the next one. */
void arm(int nth);

/** Let the nth call fail that bears a name: "init_object", "init_array", "append", "serialize", or
    the member that it sets. */
void arm(const std::string &name, int nth = 1);

/** @return whether a call has failed since arm() */
bool disarm();

/** As sweep_faults(). @return number of calls that were made to fail */
template <typename Attempt, typename Check>
int sweep(Attempt attempt, Check check) {
    return sweep_faults(arm, disarm, attempt, check);
}

} // namespace json_fault

#endif
