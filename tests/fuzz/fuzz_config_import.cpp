#include "config/config_file.h"
#include "config/read.h"
#include "core/state.h"
#include "scratch_gateway.h"

#include <algorithm>
#include <array>
#include <cstring>

/*
 * Any bytes as a configuration file. A file that is refused leaves the working copy as it was, down
 * to the byte, and says why; one that is accepted leaves rows that can be read, and an export that
 * comes back as itself.
 */

namespace {

scratch_gateway *g_gateway = nullptr;

constexpr std::array keys = {"syntax-err",
                             "column-name-failed",
                             "internal-err",
                             "missing-necessary-parameter",
                             "invalid-val",
                             "invalid-name",
                             "duplicate-name",
                             "tagsize-exceeds-limit",
                             "invalid-frame",
                             "missing-table",
                             "table-full",
                             "foreign-key-constraint-failed",
                             "check-constraint-failed",
                             "unique-constraint"};

constexpr std::array tables = {"", "interface_setting", "device", "transactions", "frame", "block"};

template <size_t Size>
bool is_one_of(const char *text, const std::array<const char *, Size> &texts) {
    return std::any_of(
        texts.begin(), texts.end(), [text](const char *one) { return strcmp(one, text) == 0; });
}

void expect_a_reason(const conf_import_error &err) {
    KT_ALWAYS(memchr(err.key, '\0', sizeof err.key) != nullptr);
    KT_ALWAYS(memchr(err.column_name, '\0', sizeof err.column_name) != nullptr);
    KT_ALWAYS(memchr(err.table_name, '\0', sizeof err.table_name) != nullptr);
    KT_ALWAYS(is_one_of(err.key, keys));
    KT_ALWAYS(is_one_of(err.table_name, tables));
    KT_ALWAYS(err.line >= 0 && err.column >= 0 && err.column <= 20);
}

void expect_sound_rows() {
    KT_ALWAYS(g_gateway->rows("PRAGMA integrity_check") == "ok|");
    KT_ALWAYS(g_gateway->rows("PRAGMA foreign_key_check").empty());
    KT_ALWAYS(g_gateway->rows("SELECT COUNT(*) FROM interface_setting") == "2|");
    KT_ALWAYS(g_gateway
                  ->rows("SELECT name FROM (SELECT deviceName AS name FROM device UNION SELECT "
                         "transactionName FROM transactions UNION SELECT tagName FROM block UNION "
                         "SELECT constantName FROM block) WHERE name GLOB '*[^-A-Za-z0-9._~]*'")
                  .empty());
}

void read_every_row() {
    for (int portId = 0; portId <= 2; portId++) {
        device_config *devices = nullptr;
        const int result = can_proprietary_conf_get_port_config(&devices, portId);
        KT_ALWAYS(result == 0 || (result == -1 && devices == nullptr));
        conf_free_device_list(devices);
    }
}

/**
 * What an export cannot bring back by definition: a cut line, a zero's sign, and a constant of more
 * digits than are read.
 */
bool comes_back(const std::string &text) {
    constexpr const char *long_constants =
        "SELECT COUNT(*) FROM block WHERE blockType = 1 AND constantSize > 8";
    if (g_gateway->rows(long_constants) != "0|") {
        return false;
    }
    size_t start = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
        if (end - start >= 255) {
            return false;
        }
        start = end + 1;
    }
    return text.find("-0.000000") == std::string::npos;
}

void export_and_come_back() {
    const std::string first = g_gateway->path("first");
    const std::string second = g_gateway->path("second");
    if (can_proprietary_conf_export(first.c_str()) != 0) {
        return;
    }
    conf_import_error err{};
    if (can_proprietary_conf_import(first.c_str(), &err) != 0) {
        expect_a_reason(err);
        return;
    }
    KT_ALWAYS(can_proprietary_conf_export(second.c_str()) == 0);
    const std::string text = content_of(first);
    KT_ALWAYS(!comes_back(text) || content_of(second) == text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static scratch_gateway gateway;
    g_gateway = &gateway;
    conf_import_error err{};
    const int result = can_proprietary_conf_import(gateway.file_with(data, size), &err);
    KT_ALWAYS(result == 0 || result == -1);
    if (result == -1) {
        expect_a_reason(err);
        KT_ALWAYS(gateway.is_untouched());
        return 0;
    }
    KT_ALWAYS(err.key[0] == '\0' && can_proprietary_restart == 0);
    expect_sound_rows();
    read_every_row();
    export_and_come_back();
    gateway.restore();
    return 0;
}
