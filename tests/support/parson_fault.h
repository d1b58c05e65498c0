#ifndef KT_TESTS_PARSON_FAULT_H
#define KT_TESTS_PARSON_FAULT_H

/* Failing calls of the JSON library, one thread. */

namespace parson_fault {

enum class call { none, init_object, init_array, set_string, set_number, append_value, serialize };

/** Let the nth call of that kind from now on fail, once. */
void arm(call kind, int nth = 1);

/** @return whether a call has failed since arm() */
bool disarm();

} // namespace parson_fault

#endif
