#include "scene.h"

#include "config/config_file.h"
#include "config/database_files.h"
#include "core/state.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sqlite3.h>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr const char *interface_section =
    "[interface-setting]\n"
    "portId,frameFormat,baudrate,initialDelay,busOffReset,resistor\n"
    "1,0,3,0,0,0\n\n";
constexpr const char *device_head = "[device]\ndeviceId,portId,deviceName\n";
constexpr const char *transaction_head =
    "\n[transactions]\n"
    "transactionId,deviceId,transactionEnable,transactionName,transactionType,triggerMode,"
    "cyclicInterval,fpFunc,fpTimeout,triggerByRTR,consumeToutEnable,consumeTimeout,timeoutRetry,"
    "responseTimeout\n";
constexpr const char *frame_head = "\n[frame]\nframeId,transactionId,canId,dataLength,frameType\n";
constexpr const char *block_head =
    "\n[block]\n"
    "blockId,frameId,blockType,startOffset,tagName,tagType,tagSize,access,swap,fpData,"
    "scalingFunc,interceptSlope,interceptOffset,pointSourceMin,pointSourceMax,pointTargetMin,"
    "pointTargetMax,constantName,constantSize,constantValue\n";

std::string small_file() {
    return std::string(interface_section) + device_head + "1,1,drive\n2,1,pump\n" +
           transaction_head +
           "1,1,1,send,0,1,,0,,1,,,,\n2,1,1,state,1,,,,,,0,,,\n3,2,1,ask,2,1,,0,,,,,0,50\n" +
           frame_head + "1,1,201,8,0\n2,2,181,8,1\n3,3,601,8,2\n4,3,581,8,3\n" + block_head +
           "1,1,0,0,speed,6,2,wo,0,,0,,,,,,,,,\n2,2,0,0,load,6,2,ro,0,,0,,,,,,,,,\n"
           "3,3,1,0,,,,,,,,,,,,,,code,2,40A0\n4,4,0,4,value,7,4,ro,1,,0,,,,,,,,,\n";
}

void must(bool holds, const char *what) {
    if (!holds) {
        (void)fprintf(stderr, "the gateway cannot be made: %s\n", what);
        _exit(2);
    }
}

void write_file(const std::string &path, const char *text, std::ios::openmode mode = {}) {
    std::ofstream file(path, std::ios::binary | mode);
    file << text;
    must(file.good(), path.c_str());
}

void execute(const std::string &path, const char *sql) {
    sqlite3 *opened = nullptr;
    must(sqlite3_open(path.c_str(), &opened) == SQLITE_OK, "open");
    must(sqlite3_exec(opened, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql);
    (void)sqlite3_close(opened);
}

void import_applied(const std::string &root, const std::string &text) {
    const std::string file = root + "/import.csv";
    write_file(file, text.c_str());
    conf_import_error error{};
    must(can_proprietary_conf_import(file.c_str(), &error) == 0, error.key);
    must(can_proprietary_conf_apply() == 0, "apply");
    fs::remove(file);
}

void outdate() {
    write_file(shipped_schema_path(), "-- one more line\n", std::ios::app);
    // What a migration that was cut off has left
    write_file(default_db_path() + ".new", "half a database");
    write_file(persistent_db_path() + ".new", "half a database");
}

void make_here(scene::kind which, const std::string &root) {
    scene::enter(root);
    const fs::path schema(shipped_schema_path());
    fs::create_directories(schema.parent_path());
    fs::copy_file(KT_SCHEMA_FILE, schema);
    fs::create_directories(root + "/run/kt-platform");
    if (which == scene::kind::EMPTY) {
        return;
    }
    must(can_proprietary_db_init_user_config() == 0, "databases");
    import_applied(root, which == scene::kind::LARGE ? scene::large_file() : small_file());
    if (which == scene::kind::BOOTED) {
        fs::remove_all(root + "/run");
        return;
    }
    execute(working_db_path(), "INSERT INTO device (portId, deviceName) VALUES (1, 'valve')");
    if (which == scene::kind::OUTDATED) {
        outdate();
    }
}

/** Rows as text, for comparison */
int collect(void *to, int count, char **values, char ** /*names*/) {
    auto &text = *static_cast<std::string *>(to);
    for (int i = 0; i < count; i++) {
        text.append(values[i] == nullptr ? "NULL" : values[i]).append("|");
    }
    text.append("\n");
    return 0;
}

std::string rows_of(const std::string &path) {
    if (!fs::exists(path)) {
        return "absent\n";
    }
    sqlite3 *opened = nullptr;
    const int result = sqlite3_open_v2(path.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
    const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(opened, sqlite3_close);
    std::string found;
    for (const char *sql : {"PRAGMA integrity_check",
                            "PRAGMA foreign_key_check",
                            "SELECT * FROM interface_setting",
                            "SELECT * FROM device",
                            "SELECT * FROM transactions",
                            "SELECT * FROM frame",
                            "SELECT * FROM block"}) {
        if (result != SQLITE_OK ||
            sqlite3_exec(opened, sql, collect, &found, nullptr) != SQLITE_OK) {
            return "damaged: " + path + ": " + sqlite3_errmsg(opened);
        }
        found.append(";");
    }
    return found.rfind("ok|\n;;", 0) == 0 ? found : "damaged: " + path + ": " + found;
}

} // namespace

std::string scene::large_file() {
    constexpr int devices = 60;
    std::string sections[] = {device_head, transaction_head, frame_head, block_head};
    const auto add = [&](size_t section, std::initializer_list<std::string_view> parts) {
        for (const std::string_view part : parts) {
            sections[section].append(part);
        }
        sections[section].append("\n");
    };
    for (int i = 1; i <= devices; i++) {
        const std::string device = std::to_string(i);
        const std::string produce = std::to_string(2 * i - 1);
        const std::string consume = std::to_string(2 * i);
        add(0, {device, ",1,unit", device});
        add(1, {produce, ",", device, ",1,send,0,1,,0,,1,,,,"});
        add(1, {consume, ",", device, ",1,state,1,,,,,,1,500,,"});
        add(2, {produce, ",", produce, ",", std::to_string(100 + i), ",8,0"});
        add(2, {consume, ",", consume, ",", std::to_string(200 + i), ",8,1"});
        add(3, {produce, ",", produce, ",0,0,speed,6,2,wo,0,,0,,,,,,,,,"});
        add(3, {consume, ",", consume, ",0,0,load,6,2,ro,0,,0,,,,,,,,,"});
    }
    return interface_section + sections[0] + sections[1] + sections[2] + sections[3];
}

std::string scene::make_folder() {
    const char *folder = getenv("TMPDIR");
    if (folder == nullptr) {
        folder = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
    }
    std::string root = std::string(folder) + "/kt-fault-XXXXXX";
    must(mkdtemp(root.data()) != nullptr, root.c_str());
    return root;
}

void scene::clear(const std::string &folder) {
    std::error_code ignored; // nothing is left to tell it to
    fs::remove_all(folder, ignored);
}

void scene::make(kind which, const std::string &root) {
    const pid_t maker = fork();
    if (maker == 0) {
        fs::create_directories(root);
        make_here(which, root);
        _exit(0);
    }
    int status = 0;
    must(waitpid(maker, &status, 0) == maker && status == 0, root.c_str());
}

void scene::copy(const std::string &from, const std::string &to) {
    clear(to);
    fs::copy(from, to, fs::copy_options::recursive);
}

void scene::enter(const std::string &root) {
    (void)setenv("KT_ROOT", root.c_str(), 1);
    g_can_port_count = 1;
}

std::string scene::content(const std::string &root) {
    const std::string before = getenv("KT_ROOT") == nullptr ? "" : getenv("KT_ROOT");
    (void)setenv("KT_ROOT", root.c_str(), 1);
    const std::string applied_rows = rows_of(persistent_db_path());
    const std::string working_rows = rows_of(working_db_path());
    (void)setenv("KT_ROOT", before.c_str(), 1);
    for (const std::string &rows : {applied_rows, working_rows}) {
        if (rows.rfind("damaged", 0) == 0) {
            return rows;
        }
    }
    return "applied\n" + applied_rows + "working\n" + working_rows;
}
