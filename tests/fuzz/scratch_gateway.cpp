#include "scratch_gateway.h"

#include "config/config_file.h"
#include "config/database_files.h"
#include "core/state.h"

#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <memory>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *first_rows =
    "[interface-setting]\n"
    "portId,frameFormat,baudrate,initialDelay,busOffReset,resistor\n"
    "1,0,3,0,0,0\n2,1,3,0,1,0\n\n"
    "[device]\ndeviceId,portId,deviceName\n1,1,drive\n2,2,pump\n\n"
    "[transactions]\n"
    "transactionId,deviceId,transactionEnable,transactionName,transactionType,triggerMode,"
    "cyclicInterval,fpFunc,fpTimeout,triggerByRTR,consumeToutEnable,consumeTimeout,timeoutRetry,"
    "responseTimeout\n"
    "1,1,1,send,0,0,100,2,500,0,,,,\n2,1,1,state,1,,,,,,1,300,,\n3,2,1,ask,2,1,,0,,,,,2,50\n\n"
    "[frame]\nframeId,transactionId,canId,dataLength,frameType\n"
    "1,1,201,8,0\n2,2,181,8,1\n3,3,601,8,2\n4,3,581,8,3\n\n"
    "[block]\n"
    "blockId,frameId,blockType,startOffset,tagName,tagType,tagSize,access,swap,fpData,"
    "scalingFunc,interceptSlope,interceptOffset,pointSourceMin,pointSourceMax,pointTargetMin,"
    "pointTargetMax,constantName,constantSize,constantValue\n"
    "1,1,0,0,speed,6,2,wo,0,00FF,0,,,,,,,,,\n2,2,0,0,load,6,2,ro,0,,2,,,0,100,0,1,,,\n"
    "3,3,1,0,,,,,,,,,,,,,,code,2,40A0\n4,4,0,4,value,7,4,ro,1,,0,,,,,,,,,\n";

void read_all(int file, std::vector<char> &bytes) {
    struct stat status {};
    KT_ALWAYS(fstat(file, &status) == 0);
    bytes.resize(static_cast<size_t>(status.st_size));
    KT_ALWAYS(pread(file, bytes.data(), bytes.size(), 0) == status.st_size);
}

std::vector<char> bytes_of(int file) {
    std::vector<char> bytes;
    read_all(file, bytes);
    return bytes;
}

} // namespace

std::string content_of(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

scratch_gateway::scratch_gateway() : input_path_(path("input")) {
    input_ = open(input_path_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    KT_ALWAYS(input_ >= 0);
    conf_import_error err{};
    const std::string_view rows(first_rows);
    const char *file = file_with(reinterpret_cast<const uint8_t *>(rows.data()), rows.size());
    KT_ALWAYS(can_proprietary_conf_import(file, &err) == 0);
    open_working_copy();
    first_content_ = bytes_of(working_copy_);
    first_saved_ = content_of(persistent_db_path());
    remember();
    silence_the_log();
}

scratch_gateway::~scratch_gateway() {
    (void)close(input_);
    (void)close(working_copy_);
}

/** Again when another file has taken its place. */
void scratch_gateway::open_working_copy() {
    struct stat named {};
    struct stat opened {};
    const std::string name = working_db_path();
    KT_ALWAYS(stat(name.c_str(), &named) == 0);
    if (working_copy_ >= 0 && fstat(working_copy_, &opened) == 0 && opened.st_ino == named.st_ino) {
        return;
    }
    (void)close(working_copy_); // none at first
    working_copy_ = open(name.c_str(), O_RDWR | O_CLOEXEC);
    KT_ALWAYS(working_copy_ >= 0);
}

const std::vector<char> &scratch_gateway::content() {
    open_working_copy();
    read_all(working_copy_, content_);
    return content_;
}

void scratch_gateway::remember() {
    struct stat status {};
    KT_ALWAYS(fstat(working_copy_, &status) == 0);
    first_time_ = status.st_mtim;
}

const char *scratch_gateway::file_with(const uint8_t *data, size_t size) {
    KT_ALWAYS(ftruncate(input_, 0) == 0);
    KT_ALWAYS(pwrite(input_, data, size, 0) == static_cast<ssize_t>(size));
    return input_path_.c_str();
}

bool scratch_gateway::is_untouched() const {
    struct stat status {};
    return fstat(working_copy_, &status) == 0 && status.st_nlink == 1 &&
           status.st_mtim.tv_sec == first_time_.tv_sec &&
           status.st_mtim.tv_nsec == first_time_.tv_nsec &&
           access((working_db_path() + "-journal").c_str(), F_OK) != 0 &&
           bytes_of(working_copy_) == first_content_ && can_proprietary_restart == 0;
}

void scratch_gateway::restore() {
    if (content_of(persistent_db_path()) != first_saved_) {
        std::ofstream(persistent_db_path(), std::ios::binary) << first_saved_;
    }
    open_working_copy();
    const auto size = static_cast<ssize_t>(first_content_.size());
    KT_ALWAYS(pwrite(working_copy_, first_content_.data(), first_content_.size(), 0) == size);
    KT_ALWAYS(ftruncate(working_copy_, size) == 0);
    remember();
}

std::string scratch_gateway::rows(const char *sql) const {
    sqlite3 *opened = nullptr;
    const int flags = SQLITE_OPEN_READONLY;
    const int result = sqlite3_open_v2(working_db_path().c_str(), &opened, flags, nullptr);
    const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(opened, sqlite3_close);
    KT_ALWAYS(result == SQLITE_OK);
    std::string found;
    const auto collect = [](void *to, int count, char **values, char **) {
        auto &text = *static_cast<std::string *>(to);
        for (int i = 0; i < count; i++) {
            text.append(values[i] == nullptr ? "NULL" : values[i]).append("|");
        }
        return 0;
    };
    KT_ALWAYS(sqlite3_exec(opened, sql, collect, &found, nullptr) == SQLITE_OK);
    return found;
}
