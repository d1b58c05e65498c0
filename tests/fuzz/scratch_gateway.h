#ifndef KT_TESTS_SCRATCH_GATEWAY_H
#define KT_TESTS_SCRATCH_GATEWAY_H

#include "always.h"
#include "gateway_folder.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

/**
 * A gateway with two ports and a device tree. Log lines are formatted and thrown away. One for each
 * program.
 */
class scratch_gateway {
public:
    scratch_gateway();
    ~scratch_gateway();
    scratch_gateway(const scratch_gateway &) = delete;
    scratch_gateway &operator=(const scratch_gateway &) = delete;

    /** Path of a file with these bytes; the next call writes over it. */
    const char *file_with(const uint8_t *data, size_t size);

    /** Path for a file that the code under test writes. */
    [[nodiscard]] std::string path(const char *name) const { return folder_.path(name); }

    /** The working copy is, byte by byte, what it was at first. */
    [[nodiscard]] bool is_untouched() const;

    /** Bring working copy and saved configuration back to what they were at first. */
    void restore();

    /** The working copy as it is. */
    [[nodiscard]] const std::vector<char> &content();

    /** The working copy as it was at first. */
    [[nodiscard]] const std::vector<char> &first_content() const { return first_content_; }

    /** Rows of a query as text, for what the configuration must never hold. */
    [[nodiscard]] std::string rows(const char *sql) const;

private:
    void remember();
    void open_working_copy();

    gateway_folder folder_{"kt-fuzz"};
    std::string input_path_;
    int input_ = -1;
    int working_copy_ = -1; /* stays open: closing it would drop a connection's locks */
    std::vector<char> content_;
    std::vector<char> first_content_;
    std::string first_saved_;
    timespec first_time_{};
};

/** A whole file. */
std::string content_of(const std::string &path);

#endif
