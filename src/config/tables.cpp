#include "config/tables.h"

#include "config/model.h"

#include <array>
#include <cstdint>

namespace {

using enum column_kind;

constexpr std::array interface_columns = {
    column{"portId", NUMBER, "-1", ALWAYS, 0, 0},
    column{"frameFormat", NUMBER, "0", ALWAYS, 1, 0},
    column{"baudrate", NUMBER, "3", ALWAYS, 2, 0},
    column{"initialDelay", NUMBER, "0", ALWAYS, 3, 0},
    column{"busOffReset", FLAG, "0", ALWAYS, 4, 0},
    column{"resistor", FLAG, "0", ALWAYS, 5, 0},
};

constexpr std::array device_columns = {
    column{"deviceId", NUMBER, "-1", ALWAYS, 0, 0},
    column{"portId", NUMBER, "-1", ALWAYS, 1, 0},
    column{"deviceName", NAME, "'device'", ALWAYS, 2, 0},
};

constexpr std::array transaction_columns = {
    column{"transactionId", NUMBER, "-1", ALWAYS, 0, 0},
    column{"deviceId", NUMBER, "-1", ALWAYS, 1, 0},
    column{"transactionEnable", NUMBER, "1", ALWAYS, 2, 0},
    column{"transactionName", NAME, "NULL", ALWAYS, 3, 0},
    column{"transactionType", NUMBER, "0", ALWAYS, 4, 0},
    column{"triggerMode", NUMBER, "0", SENDING, 5, 0},
    column{"cyclicInterval", NUMBER, "1000", CYCLIC, 6, 0},
    column{"fpFunc", NUMBER, "0", SENDING, 7, 0},
    column{"fpTimeout", NUMBER, "10000", PROTECTED, 8, 0},
    column{"triggerByRTR", NUMBER, "0", PRODUCING, 9, 0},
    column{"consumeToutEnable", NUMBER, "0", CONSUMING, 10, 0},
    column{"consumeTimeout", NUMBER, "10000", TIMED, 11, 0},
    column{"timeoutRetry", NUMBER, "0", REQUESTING, 12, 0},
    column{"responseTimeout", NUMBER, "1000", REQUESTING, 13, 0},
};

constexpr std::array transaction_activations = {
    activation{4, TRANSACTION_PRODUCE, TRANSACTION_PRODUCE, ALWAYS, PRODUCING | SENDING},
    activation{4, TRANSACTION_CONSUME, TRANSACTION_CONSUME, ALWAYS, CONSUMING},
    activation{4, TRANSACTION_REQUEST, TRANSACTION_REQUEST, ALWAYS, REQUESTING | SENDING},
    activation{5, TRIGGER_CYCLIC, TRIGGER_CYCLIC, SENDING, CYCLIC},
    activation{7, FAULT_PROTECTION_ZERO, FAULT_PROTECTION_VALUE, SENDING, PROTECTED},
    activation{10, 1, 1, CONSUMING, TIMED},
};

constexpr std::array frame_columns = {
    column{"frameId", NUMBER, "-1", ALWAYS, 0, 0},
    column{"transactionId", NUMBER, "-1", ALWAYS, 1, 0},
    column{"canId", CAN_ID, "0", ALWAYS, 2, 0},
    column{"dataLength", NUMBER, "0", ALWAYS, 3, 0},
    column{"frameType", NUMBER, "0", ALWAYS, 4, 0},
};

/* The two intercept columns are written from the point columns: both share a record's slots, which
   the points win when a row is read. */
constexpr std::array block_columns = {
    column{"blockId", NUMBER, "-1", ALWAYS, 0, 0},
    column{"frameId", NUMBER, "-1", ALWAYS, 1, 0},
    column{"blockType", NUMBER, "0", ALWAYS, 2, 0},
    column{"startOffset", NUMBER, "0", ALWAYS, 3, 0},
    column{"tagName", NAME, "'tag'", TAG, 4, 0},
    column{"tagType", NUMBER, "13", TAG, 5, 0},
    column{"tagSize", NUMBER, "1", TAG, 6, 0},
    column{"access", TEXT, "'ro'", TAG, 7, access_max_bytes},
    column{"swap", NUMBER, "0", TAG, 8, 0},
    column{"fpData", TEXT, "''", FAULT_VALUE, 9, fp_data_max_bytes},
    column{"scalingFunc", NUMBER, "0", SCALABLE, 10, 0},
    column{"interceptSlope", REAL, "1", INTERCEPT, 13, 0},
    column{"interceptOffset", REAL, "0", INTERCEPT, 14, 0},
    column{"pointSourceMin", REAL, "0", POINTS, 13, 0},
    column{"pointSourceMax", REAL, "1", POINTS, 14, 0},
    column{"pointTargetMin", REAL, "0", POINTS, 15, 0},
    column{"pointTargetMax", REAL, "1", POINTS, 16, 0},
    column{"constantName", NAME, "'constantName'", relevance::CONSTANT, 17, 0},
    column{"constantSize", NUMBER, "1", relevance::CONSTANT, 18, 0},
    column{"constantValue", column_kind::CONSTANT, "''", relevance::CONSTANT, 19, 0},
};

constexpr std::array block_activations = {
    activation{2, BLOCK_TAG, BLOCK_TAG, ALWAYS, TAG},
    activation{2, BLOCK_CONSTANT, BLOCK_CONSTANT, ALWAYS, relevance::CONSTANT},
    activation{5, INT32_MIN, TAG_SCALABLE_MAX, TAG, SCALABLE},
    activation{10, SCALING_INTERCEPT, SCALING_INTERCEPT, SCALABLE, INTERCEPT},
    activation{10, SCALING_POINTS, SCALING_POINTS, SCALABLE, POINTS},
};

constexpr std::array<table, TABLE_COUNT> tables = {{
    {"interface_setting",
     "[interface-setting]",
     "portId,frameFormat,baudrate,initialDelay,busOffReset,resistor",
     interface_columns,
     {}},
    {"device", "[device]", "deviceId,portId,deviceName", device_columns, {}},
    {"transactions",
     "[transactions]",
     "transactionId,deviceId,transactionEnable,transactionName,transactionType,triggerMode,"
     "cyclicInterval,fpFunc,fpTimeout,triggerByRTR,consumeToutEnable,consumeTimeout,timeoutRetry,"
     "responseTimeout",
     transaction_columns,
     transaction_activations},
    {"frame", "[frame]", "frameId,transactionId,canId,dataLength,frameType", frame_columns, {}},
    {"block",
     "[block]",
     "blockId,frameId,blockType,startOffset,tagName,tagType,tagSize,access,swap,fpData,"
     "scalingFunc,interceptSlope,interceptOffset,pointSourceMin,pointSourceMax,pointTargetMin,"
     "pointTargetMax,constantName,constantSize,constantValue",
     block_columns,
     block_activations},
}};

} // namespace

const table &table_of(table_id id) {
    return tables[id];
}

uint16_t relevance_of(const table &table, uint8_t column, int32_t value, uint16_t known) {
    uint16_t added = 0;
    for (const activation &rule : table.activations) {
        const bool holds = rule.needs == ALWAYS || (rule.needs & known) != 0;
        if (rule.column == column && holds && value >= rule.lowest && value <= rule.highest) {
            added = static_cast<uint16_t>(added | rule.gives);
        }
    }
    return added;
}

bool gives_relevance(const table &table, uint8_t column) {
    for (const activation &rule : table.activations) {
        if (rule.column == column) {
            return true;
        }
    }
    return false;
}
