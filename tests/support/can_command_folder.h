#ifndef KT_TESTS_CAN_COMMAND_FOLDER_H
#define KT_TESTS_CAN_COMMAND_FOLDER_H

#include <string>
#include <vector>

/* A folder in front of PATH with an "ip" that writes down what it is called with, and fails. */
class can_command_folder {
public:
    can_command_folder();
    can_command_folder(const can_command_folder &) = delete;
    can_command_folder &operator=(const can_command_folder &) = delete;
    ~can_command_folder();

    /** The arguments of each call so far; forgets them. */
    std::vector<std::string> calls();

private:
    std::string folder_;
    std::string path_;
};

#endif
