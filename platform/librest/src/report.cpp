#include "report.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

void report(const char *format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    if (vsnprintf(text, sizeof text, format, arguments) < 0) {
        text[0] = '\0';
    }
    va_end(arguments);
    for (char *at = text; *at; ++at) {
        if (static_cast<unsigned char>(*at) < 0x20 || *at == 0x7f) {
            *at = '?';
        }
    }
    (void)fprintf(stderr, "kt-rest: %s\n", text); // nobody left to tell
}
