#include "damage.h"

#include <algorithm>
#include <array>

namespace {

constexpr size_t page_bytes = 4096;
constexpr size_t header_bytes = 100;

size_t pages(const std::string &bytes) {
    return std::max<size_t>(1, bytes.size() / page_bytes);
}

size_t any_page(const std::string &bytes, dice &random) {
    return random.below(pages(bytes)) * page_bytes;
}

/** Up to eight bytes from there, each any value. */
void scribble(std::string *bytes, size_t begin, size_t length, dice &random) {
    const uint64_t count = 1 + random.below(8);
    for (uint64_t i = 0; i < count; i++) {
        const size_t at = begin + random.below(length);
        if (at < bytes->size()) {
            (*bytes)[at] = static_cast<char>(random.below(256));
        }
    }
}

void header(std::string *bytes, dice &random) {
    scribble(bytes, 0, header_bytes, random);
}

void page_header(std::string *bytes, dice &random) {
    const size_t page = any_page(*bytes, random);
    scribble(bytes, page == 0 ? header_bytes : page, 12, random);
}

void cell_pointers(std::string *bytes, dice &random) {
    const size_t page = any_page(*bytes, random);
    scribble(bytes, page + (page == 0 ? header_bytes : 0) + 8, 64, random);
}

void cells(std::string *bytes, dice &random) {
    scribble(bytes, any_page(*bytes, random) + page_bytes - 800, 800, random);
}

/** Its first page and its number of pages. */
void freelist(std::string *bytes, dice &random) {
    scribble(bytes, 32, 8, random);
}

/** The rows that say which tables there are. */
void schema_rows(std::string *bytes, dice &random) {
    const size_t found = bytes->find("CREATE ");
    const size_t begin = found == std::string::npos ? header_bytes : found;
    scribble(bytes, begin > 60 ? begin - 60 : begin, 3000, random);
}

void truncated(std::string *bytes, dice &random) {
    bytes->resize(random.one_of(8) ? 0 : random.below(bytes->size()));
}

void zero_page(std::string *bytes, dice &random) {
    const size_t page = any_page(*bytes, random);
    const size_t length = std::min(page_bytes, bytes->size() - page);
    std::fill_n(bytes->begin() + static_cast<long>(page), length, '\0');
}

void page_over_another(std::string *bytes, dice &random) {
    const std::string page = bytes->substr(any_page(*bytes, random), page_bytes);
    bytes->replace(any_page(*bytes, random), page_bytes, page);
}

void doubled(std::string *bytes, dice & /*random*/) {
    *bytes += std::string(*bytes);
}

void noise(std::string *bytes, dice &random) {
    for (char &byte : *bytes) {
        byte = static_cast<char>(random.below(256));
    }
}

struct kind {
    const char *name;
    void (*change)(std::string *bytes, dice &random);
};

constexpr std::array kinds = {
    kind{"header", header},
    kind{"page header", page_header},
    kind{"cell pointers", cell_pointers},
    kind{"cells", cells},
    kind{"freelist", freelist},
    kind{"schema rows", schema_rows},
    kind{"truncated", truncated},
    kind{"zero page", zero_page},
    kind{"page over another", page_over_another},
    kind{"doubled", doubled},
    kind{"noise", noise},
};

} // namespace

std::string damage(std::string *bytes, dice &random) {
    // The last two are always the same thing: rarely.
    const size_t usual = kinds.size() - 2;
    const size_t which = random.one_of(20) ? usual + random.below(2) : random.below(usual);
    kinds[which].change(bytes, random);
    return kinds[which].name;
}
