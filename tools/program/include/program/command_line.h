#ifndef PROGRAM_COMMAND_LINE_H
#define PROGRAM_COMMAND_LINE_H

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/*
 * How every program reads its command line: long options, "--name VALUE" or "--name=VALUE", at any
 * place, each once; "--" ends them; "-5", "-.5", "-inf" and "-" are no options.
 */
namespace program {

enum class takes { nothing, value, values }; // values: it may be given several times

struct option_row {
    std::string_view name; // with its dashes
    takes what;
};

/** A command such as "list", which stands first among the words. */
struct command_row {
    std::string_view name;
    std::size_t least_arguments;
    std::size_t most_arguments;
    std::string_view options; // those that it takes, with blanks between them
};

struct command_line {
    std::vector<std::pair<std::string_view, std::string>> options; // in the order given
    std::vector<std::string> words;

    bool has(std::string_view name) const;

    /** The value of an option, nullptr when it was not given. */
    const std::string *value(std::string_view name) const;
};

/**
 * Take a command line apart. --help (also as -h) and --version need no row.
 *
 * @param words_end_options  asked after each word: true when only words follow; may be empty
 * @param[out] line          also on failure: what stood before the problem
 * @return the problem, empty for none
 */
std::string parse(std::span<const option_row> rows,
                  std::span<char *const> arguments,
                  command_line &line,
                  const std::function<bool()> &words_end_options = {});

/** @return what is wrong with options and number of words for that command, empty when nothing is
 */
std::string check_command(const command_row &command, const command_line &line);

/** What --help and --version print. */
struct identity {
    const char *name;
    const char *help;
};

/** Answer --help or --version, the latter as an object with --json. @return the exit status */
int answer_about(const identity &self, const command_line &line);

/** True when the line asks for --help or --version. */
bool asks_about(const command_line &line);

} // namespace program

#endif
