#ifndef PARSON_PARSE_MEMORY_H
#define PARSON_PARSE_MEMORY_H

#include <jansson.h>

/**
 * json_loads(), which also survives that memory runs out.
 *
 * The library's scanner (2.14) does not look whether the text of a token could grow: the character
 * is missing then, and it ends in an assertion or reads what is not there. So its allocations are
 * counted here, a parse is left at the first one that fails, and what it had allocated is released.
 *
 * @return nullptr for text that is no JSON and when memory runs out
 *
 * Any thread. The first call of the program takes json_set_alloc_funcs() over: nothing else may.
 */
json_t *load_or_leave(const char *text, size_t flags);

#endif
