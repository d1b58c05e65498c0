#include "log.h"

#include <string>
#include <unistd.h>

void log_line(std::string_view text) {
    std::string line = "kt-dx-mqtt: ";
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        line += byte < 0x20 || byte == 0x7F ? '?' : character;
    }
    line += '\n';
    // One call: lines of several threads do not mix. There is nobody to tell of a failure.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}
