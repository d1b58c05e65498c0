#include <kt/protocol_common.h>

namespace {

int digit_value(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

} // namespace

int atoh(const char *text, uint8_t *bytes, size_t size) {
    size_t digits = 0;
    while (text && bytes && digits < 2 * size && digit_value(text[digits]) >= 0) {
        ++digits;
    }
    const size_t lead = digits % 2; // an odd text lacks the first digit of its first byte
    const size_t count = (digits + lead) / 2;
    for (size_t i = 0; i < count; ++i) {
        const size_t low = 2 * i + 1 - lead;
        const int high = i == 0 && lead ? 0 : digit_value(text[low - 1]);
        bytes[i] = static_cast<uint8_t>(high << 4 | digit_value(text[low]));
    }
    return static_cast<int>(count);
}
