#include "largest.h"

#include <cstdio>

namespace {

struct section {
    const char *head;
    const char *header;
    const char *table;
};

constexpr section interface_section = {
    "[interface-setting]",
    "portId,frameFormat,baudrate,initialDelay,busOffReset,resistor",
    "interface_setting"};
constexpr section device_section = {"[device]", "deviceId,portId,deviceName", "device"};
constexpr section transaction_section = {
    "[transactions]",
    "transactionId,deviceId,transactionEnable,transactionName,transactionType,triggerMode,"
    "cyclicInterval,fpFunc,fpTimeout,triggerByRTR,consumeToutEnable,consumeTimeout,timeoutRetry,"
    "responseTimeout",
    "transactions"};
constexpr section frame_section = {
    "[frame]", "frameId,transactionId,canId,dataLength,frameType", "frame"};
constexpr section block_section = {
    "[block]",
    "blockId,frameId,blockType,startOffset,tagName,tagType,tagSize,access,swap,fpData,scalingFunc,"
    "interceptSlope,interceptOffset,pointSourceMin,pointSourceMax,pointTargetMin,pointTargetMax,"
    "constantName,constantSize,constantValue",
    "block"};

template <typename... Arguments>
std::string format(const char *pattern, Arguments... arguments) {
    char text[256];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    (void)snprintf(text, sizeof text, pattern, arguments...);
#pragma GCC diagnostic pop
    return text;
}

/** Adds a section to both forms while it lives. */
class open_section {
public:
    open_section(both_forms *to, const section &section) : to_(to), table_(section.table) {
        to_->file.append(section.head).append("\n").append(section.header).append("\n");
        to_->sql.append("DELETE FROM ").append(table_).append(";\n");
    }
    open_section(const open_section &) = delete;
    open_section &operator=(const open_section &) = delete;
    ~open_section() { to_->file.append("\n"); }

    void row(const std::string &line, const std::string &values) {
        to_->file.append(line).append("\n");
        to_->sql.append("INSERT INTO ").append(table_).append(" VALUES (").append(values);
        to_->sql.append(");\n");
    }

private:
    both_forms *to_;
    const char *table_;
};

void add_ports(both_forms *to) {
    open_section ports(to, interface_section);
    ports.row("1,0,3,0,0,0", "1,0,3,0,0,0");
    ports.row("2,1,3,0,0,0", "2,1,3,0,0,0");
}

void add_devices(both_forms *to, const configuration_size &size) {
    open_section devices(to, device_section);
    for (int i = 1; i <= size.devices; i++) {
        devices.row(format("%d,%d,device-%d", i, 1 + i % 2, i),
                    format("%d,%d,'device-%d'", i, 1 + i % 2, i));
    }
}

void add_transactions(both_forms *to, const configuration_size &size) {
    open_section transactions(to, transaction_section);
    for (int i = 1; i <= size.transactions; i++) {
        const int device = 1 + i % size.devices;
        transactions.row(
            format("%d,%d,1,exchange-%d,2,0,1000,2,500,,,,2,100", i, device, i),
            format("%d,%d,1,'exchange-%d',2,0,1000,2,500,0,0,10000,2,100", i, device, i));
    }
}

void add_frames(both_forms *to, const configuration_size &size) {
    open_section frames(to, frame_section);
    for (int i = 1; i <= size.frames(); i++) {
        const int type = i % 2 == 1 ? 2 : 3;
        frames.row(format("%d,%d,%X,8,%d", i, (i + 1) / 2, i, type),
                   format("%d,%d,0x%X,8,%d", i, (i + 1) / 2, i, type));
    }
}

void add_blocks(both_forms *to, const configuration_size &size) {
    open_section blocks(to, block_section);
    for (int i = 0; i < size.tags(); i++) {
        const int frame = 1 + i / 8;
        const int offset = i % 8;
        blocks.row(
            format("%d,%d,0,%d,value-%d,5,1,wo,0,FF,2,,,0.000000,255.000000,0.000000,1.000000,,,",
                   i + 1,
                   frame,
                   offset,
                   offset),
            format("%d,%d,0,%d,'value-%d',5,1,'wo',0,'FF',2,1,0,0.000000,255.000000,0.000000,"
                   "1.000000,'constantName',1,''",
                   i + 1,
                   frame,
                   offset,
                   offset));
    }
}

} // namespace

both_forms make_configuration(const configuration_size &size) {
    both_forms made;
    made.file = "version: 1.0.0\n\n";
    made.sql = "PRAGMA synchronous = OFF; PRAGMA foreign_keys = ON; PRAGMA journal_mode = DELETE;\n"
               "BEGIN TRANSACTION;\n";
    add_ports(&made);
    add_devices(&made, size);
    add_transactions(&made, size);
    add_frames(&made, size);
    add_blocks(&made, size);
    made.sql.append("COMMIT;\n");
    return made;
}
