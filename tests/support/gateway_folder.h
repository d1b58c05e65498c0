#ifndef KT_TESTS_GATEWAY_FOLDER_H
#define KT_TESTS_GATEWAY_FOLDER_H

#include <string>

/**
 * The files of a started gateway with two ports and no devices, below a folder in memory where
 * there is one (else TMPDIR or /tmp), as the working copy is in service. KT_ROOT points there. Ends
 * the program with a message when they cannot be made. The folder goes with the object.
 */
class gateway_folder {
public:
    /** @param name  first part of the folder's name */
    explicit gateway_folder(const char *name);
    ~gateway_folder();
    gateway_folder(const gateway_folder &) = delete;
    gateway_folder &operator=(const gateway_folder &) = delete;

    [[nodiscard]] std::string path(const char *name) const { return root_ + "/" + name; }

private:
    std::string root_;
};

#endif
