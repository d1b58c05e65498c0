#include "gateway_folder.h"

#include "config/database_files.h"
#include "core/state.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <unistd.h>

namespace {

std::string make_root(const char *name) {
    const char *folder = getenv("TMPDIR");
    if (folder == nullptr) {
        folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    }
    std::string root = std::string(folder) + "/" + name + "-XXXXXX";
    if (mkdtemp(root.data()) == nullptr) {
        perror(root.c_str());
        exit(2);
    }
    return root;
}

} // namespace

gateway_folder::gateway_folder(const char *name) : root_(make_root(name)) {
    (void)setenv("KT_ROOT", root_.c_str(), 1);
    g_can_port_count = 2;
    const std::filesystem::path schema(shipped_schema_path());
    std::filesystem::create_directories(schema.parent_path());
    std::filesystem::copy_file(KT_SCHEMA_FILE, schema);
    if (can_proprietary_db_init_user_config() != 0) {
        (void)fprintf(stderr, "%s: the databases cannot be prepared\n", root_.c_str());
        exit(2);
    }
}

gateway_folder::~gateway_folder() {
    std::error_code ignored; // nothing is left to tell it to
    std::filesystem::remove_all(root_, ignored);
}
