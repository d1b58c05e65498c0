#ifndef KT_TESTS_FUZZ_INPUT_H
#define KT_TESTS_FUZZ_INPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

/** Takes an input apart from its front; what is missing at its end reads as zero. */
class fuzz_input {
public:
    fuzz_input(const uint8_t *data, size_t size) : next_(data), left_(size) {}

    [[nodiscard]] bool empty() const { return left_ == 0; }

    template <typename Value>
    Value take() {
        Value value{};
        const std::string_view bytes = take_text(sizeof value);
        memcpy(&value, bytes.data(), bytes.size());
        return value;
    }

    uint8_t byte() { return take<uint8_t>(); }
    bool flag() { return (byte() & 1) != 0; }

    /** 0 to count - 1 */
    size_t below(size_t count) { return byte() % count; }

    /** Up to that many bytes. */
    std::string_view take_text(size_t size) {
        const std::string_view text(reinterpret_cast<const char *>(next_), std::min(size, left_));
        next_ += text.size();
        left_ -= text.size();
        return text;
    }

private:
    const uint8_t *next_;
    size_t left_;
};

#endif
