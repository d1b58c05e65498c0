#ifndef KT_TESTS_IMPORT_FIXTURE_H
#define KT_TESTS_IMPORT_FIXTURE_H

#include "config/config_file.h"
#include "config/config_fixture.h"
#include "core/guards.h"
#include "import_faults.h"

#include <cstring>

inline constexpr const char *table_names[] = {
    "interface_setting", "device", "transactions", "frame", "block"};

inline constexpr const char *section_tops[] = {
    "[interface-setting]\nportId,frameFormat,baudrate,initialDelay,busOffReset,resistor\n",
    "[device]\ndeviceId,portId,deviceName\n",
    "[transactions]\ntransactionId,deviceId,transactionEnable,transactionName,transactionType,"
    "triggerMode,cyclicInterval,fpFunc,fpTimeout,triggerByRTR,consumeToutEnable,consumeTimeout,"
    "timeoutRetry,responseTimeout\n",
    "[frame]\nframeId,transactionId,canId,dataLength,frameType\n",
    "[block]\nblockId,frameId,blockType,startOffset,tagName,tagType,tagSize,access,swap,fpData,"
    "scalingFunc,interceptSlope,interceptOffset,pointSourceMin,pointSourceMax,pointTargetMin,"
    "pointTargetMax,constantName,constantSize,constantValue\n"};

/** The rows of a file, section by section. */
struct file_rows {
    std::string section[5] = {
        "1,0,3,0,0,0\n2,1,7,500,1,1\n",
        "1,1,drive\n2,2,sensor\n",
        "1,1,1,state,1,,,,,,1,200,,\n"
        "2,1,1,command,0,0,500,2,300,1,,,,\n"
        "3,2,0,poll,2,1,,0,,,,,3,250\n",
        "1,1,181,8,1\n2,2,201,2,0\n3,3,1ABCDEF0,1,2\n4,3,1ABCDEF1,8,3\n",
        "1,1,0,0,speed,6,2,ro,1,,0,,,,,,,,,\n"
        "2,1,0,2,temp,6,2,ro,0,,2,,,0.000000,100.000000,-40.000000,85.500000,,,\n"
        "3,1,1,7,,,,,,,,,,,,,,kind,1,5A\n"
        "4,2,0,0,target,6,2,wo,0,0102,0,,,,,,,,,\n"
        "5,3,1,0,,,,,,,,,,,,,,ask,2,0ABC\n"
        "6,4,0,0,raw,13,4,ro,0,,,,,,,,,,,\n"};

    std::string text() const {
        std::string all = "version: 1.0.0\n\n";
        for (int i = 0; i < 5; i++) {
            all += section_tops[i] + section[i] + "\n";
        }
        return all;
    }
};

/** A started gateway and a file to import. */
class importing : public started_gateway {
protected:
    importing() { g_import_faults = {}; }
    ~importing() override { g_import_faults = {}; }

    int import(const std::string &text) {
        write(file_, text);
        err = {};
        return can_proprietary_conf_import(file_.c_str(), &err);
    }

    int import(const file_rows &rows) { return import(rows.text()); }

    messages failing_import(const std::string &text) {
        return messages_of([&] { EXPECT_EQ(import(text), -1) << text; });
    }

    /** The file fails with this key in that row and column of that table, and changes nothing. */
    messages refused(const std::string &text,
                     const std::string &key,
                     const std::string &table,
                     int line,
                     int column = 0,
                     const std::string &column_name = "") {
        const std::string before = everything();
        const messages said = failing_import(text);
        EXPECT_EQ(err.key, key) << text;
        EXPECT_EQ(err.table_name, table) << text;
        EXPECT_EQ(err.line, line) << text;
        EXPECT_EQ(err.column, column) << text;
        EXPECT_EQ(err.column_name, column_name) << text;
        EXPECT_EQ(everything(), before) << text;
        return said;
    }

    messages refused(const file_rows &rows,
                     const std::string &key,
                     const std::string &table,
                     int line,
                     int column = 0,
                     const std::string &column_name = "") {
        return refused(rows.text(), key, table, line, column, column_name);
    }

    static std::string committed(const std::string &sql) { return rows_of(working_db_path(), sql); }

    static std::string everything() {
        std::string all;
        for (const char *table : table_names) {
            all +=
                std::string(table) + ": " + committed(std::string("SELECT * FROM ") + table) + "\n";
        }
        return all;
    }

    std::string file_ = path("in.csv");
    conf_import_error err{};
};

/** The message of a row that the database refuses. */
inline std::string insert_message(const char *reader, int line, const std::string &text) {
    return std::string(reader) + "|Data error at line " + std::to_string(line) +
           ", sqlite insert data error ( " + text + " )\n";
}

inline std::string missing_message(const char *reader, int line, int column) {
    return std::string(reader) + "|Data error at line " + std::to_string(line) +
           ", missing necessary parameter in column " + std::to_string(column) + "\n";
}

inline std::string short_message(const char *reader, int line, int column) {
    return std::string(reader) + "|Missing value for column " + std::to_string(column) +
           " at line " + std::to_string(line) + "\n";
}

inline constexpr const char *readers[] = {"import_interface_setting_parm",
                                          "import_device_parm",
                                          "import_transaction_parm",
                                          "import_frame_parm",
                                          "import_block_parm"};

/** A text with one of its parts replaced. */
inline std::string replaced(std::string text, const std::string &part, const std::string &by) {
    const size_t at = text.find(part);
    EXPECT_NE(at, std::string::npos) << part;
    return text.replace(at, part.size(), by);
}

#endif
