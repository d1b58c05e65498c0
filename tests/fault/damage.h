#ifndef KT_TESTS_DAMAGE_H
#define KT_TESTS_DAMAGE_H

#include "sudden_death.h"

#include <string>

/** A database file's bytes with something wrong; names what it was. */
std::string damage(std::string *bytes, dice &random);

#endif
