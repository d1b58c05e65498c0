#ifndef KT_TESTS_SCRATCH_FOLDER_H
#define KT_TESTS_SCRATCH_FOLDER_H

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

/** A fresh folder that is removed with the test. */
class scratch_folder : public ::testing::Test {
protected:
    scratch_folder() {
        char name[] = "/tmp/kt-unit-XXXXXX";
        path_ = mkdtemp(name);
    }
    ~scratch_folder() override { std::filesystem::remove_all(path_); }

    std::string path(const std::string &name) const { return path_ + "/" + name; }

    static void write(const std::string &file, const std::string &text) {
        std::ofstream(file, std::ios::binary) << text;
    }
    static std::string read(const std::string &file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }
    /** Names in the folder or a folder in it, sorted. */
    std::vector<std::string> names(const std::string &folder = "") const {
        std::vector<std::string> found;
        for (const auto &entry : std::filesystem::directory_iterator(path(folder))) {
            found.push_back(entry.path().filename());
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    std::string path_;
};

/** The same folder as the root of every absolute path that the libraries use. */
class scratch_root : public scratch_folder {
protected:
    scratch_root() { (void)setenv("KT_ROOT", path_.c_str(), 1); }
    ~scratch_root() override { (void)unsetenv("KT_ROOT"); }
};

#endif
