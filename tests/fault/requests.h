#ifndef KT_TESTS_REQUESTS_H
#define KT_TESTS_REQUESTS_H

#include "configuration.h"

/** Have the handler of a request do it, as the REST server would. @return the status */
int perform(const step &wanted);

/** What the last request answered. */
const std::string &last_answer();

#endif
