#ifndef KT_CORE_USAGE_H
#define KT_CORE_USAGE_H

/**
 * Answer --help (or -h) or --version on standard output where that is the only argument. Any other
 * argument is nobody's: the service takes none, and ignores those that wrappers hand it.
 *
 * @return exit status, 0 or 1 when the text cannot be written; -1 when nothing was asked
 */
int answer_usage(int argc, const char *const *argv);

#endif
