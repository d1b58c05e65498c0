#include "config/row.h"

#include "core/guards.h"
#include "core/log.h"

#include <kt/protocol_common.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

/* Positions of the columns, in the order in which the schema declares them. */

enum interface_column {
    INTERFACE_PORT_ID,
    INTERFACE_FRAME_FORMAT,
    INTERFACE_BAUDRATE,
    INTERFACE_INITIAL_DELAY,
    INTERFACE_BUS_OFF_RESET,
    INTERFACE_RESISTOR
};

enum device_column { DEVICE_ID, DEVICE_PORT_ID, DEVICE_NAME };

enum transaction_column {
    TRANSACTION_ID,
    TRANSACTION_DEVICE_ID,
    TRANSACTION_ENABLE,
    TRANSACTION_NAME,
    TRANSACTION_TYPE,
    TRANSACTION_TRIGGER_MODE,
    TRANSACTION_CYCLIC_INTERVAL,
    TRANSACTION_FP_FUNC,
    TRANSACTION_FP_TIMEOUT,
    TRANSACTION_TRIGGER_BY_RTR,
    TRANSACTION_CONSUME_TOUT_ENABLE,
    TRANSACTION_CONSUME_TIMEOUT,
    TRANSACTION_TIMEOUT_RETRY,
    TRANSACTION_RESPONSE_TIMEOUT
};

enum frame_column { FRAME_ID, FRAME_TRANSACTION_ID, FRAME_CAN_ID, FRAME_DATA_LENGTH, FRAME_TYPE };

enum block_column {
    BLOCK_ID,
    BLOCK_FRAME_ID,
    BLOCK_TYPE,
    BLOCK_START_OFFSET,
    BLOCK_TAG_NAME,
    BLOCK_TAG_TYPE,
    BLOCK_TAG_SIZE,
    BLOCK_ACCESS,
    BLOCK_SWAP,
    BLOCK_FP_DATA,
    BLOCK_SCALING_FUNC,
    BLOCK_INTERCEPT_SLOPE,
    BLOCK_INTERCEPT_OFFSET,
    BLOCK_POINT_SOURCE_MIN,
    BLOCK_POINT_SOURCE_MAX,
    BLOCK_POINT_TARGET_MIN,
    BLOCK_POINT_TARGET_MAX,
    BLOCK_CONSTANT_NAME,
    BLOCK_CONSTANT_SIZE,
    BLOCK_CONSTANT_VALUE
};

template <typename Field>
Field number(sqlite3_stmt *row, int column) {
    return static_cast<Field>(sqlite3_column_int(row, column));
}

/** Any number but 0, also one that is no 32-bit integer. */
bool flag(sqlite3_stmt *row, int column) {
    return sqlite3_column_double(row, column) != 0;
}

const char *text(sqlite3_stmt *row, int column) {
    const auto *value = reinterpret_cast<const char *>(sqlite3_column_text(row, column));
    return value == nullptr ? "" : value;
}

/** Replaces the field's text. */
int copy_text(sqlite3_stmt *row, int column, char **field) {
    char *copy = strdup(text(row, column));
    if (copy == nullptr) {
        return -7;
    }
    free(*field);
    *field = copy;
    return 0;
}

template <size_t Size>
void copy_fixed(sqlite3_stmt *row, int column, char (&field)[Size]) {
    const char *value = text(row, column);
    const size_t length = strnlen(value, Size - 1);
    memcpy(field, value, length);
    field[length] = '\0';
}

int constant_get_row(sqlite3_stmt *row, block_config *record) {
    record->constant = allocate_zeroed<constant_block_config>().release();
    constant_block_config *constant = record->constant;
    if (constant == nullptr) {
        return -7;
    }
    constant->blockId = number<uint16_t>(row, BLOCK_ID);
    constant->frameId = number<uint16_t>(row, BLOCK_FRAME_ID);
    constant->startOffset = number<uint8_t>(row, BLOCK_START_OFFSET);
    constant->constantSize = number<uint8_t>(row, BLOCK_CONSTANT_SIZE);
    constant->constantValue = parse_constant_value(text(row, BLOCK_CONSTANT_VALUE));
    return copy_text(row, BLOCK_CONSTANT_NAME, &constant->constantName);
}

/** The points are read after the intercept and win its two slots. On purpose: rows rely on it. */
scaling_numbers read_scaling(sqlite3_stmt *row) {
    scaling_numbers scaling{};
    scaling.a = sqlite3_column_double(row, BLOCK_INTERCEPT_SLOPE);
    scaling.b = sqlite3_column_double(row, BLOCK_INTERCEPT_OFFSET);
    scaling.a = sqlite3_column_double(row, BLOCK_POINT_SOURCE_MIN);
    scaling.b = sqlite3_column_double(row, BLOCK_POINT_SOURCE_MAX);
    scaling.c = sqlite3_column_double(row, BLOCK_POINT_TARGET_MIN);
    scaling.d = sqlite3_column_double(row, BLOCK_POINT_TARGET_MAX);
    return scaling;
}

int tag_get_row(sqlite3_stmt *row, block_config *record) {
    record->tag = allocate_zeroed<tag_block_config>().release();
    tag_block_config *tag = record->tag;
    if (tag == nullptr) {
        return -7;
    }
    tag->blockId = number<uint16_t>(row, BLOCK_ID);
    tag->frameId = number<uint16_t>(row, BLOCK_FRAME_ID);
    tag->startOffset = number<uint8_t>(row, BLOCK_START_OFFSET);
    tag->tagType = number<uint8_t>(row, BLOCK_TAG_TYPE);
    tag->tagSize = number<uint8_t>(row, BLOCK_TAG_SIZE);
    tag->swap = number<uint8_t>(row, BLOCK_SWAP);
    tag->scalingFunc = number<uint8_t>(row, BLOCK_SCALING_FUNC);
    tag->scaling = read_scaling(row);
    copy_fixed(row, BLOCK_ACCESS, tag->access);
    copy_fixed(row, BLOCK_FP_DATA, tag->fpData);
    return copy_text(row, BLOCK_TAG_NAME, &tag->tagName);
}

} // namespace

int key_of_row(sqlite3_stmt *row) {
    return sqlite3_column_int(row, 0);
}

uint64_t parse_constant_value(const char *text) {
    std::array<uint8_t, sizeof(uint64_t)> bytes{};
    std::array<char, 2 * sizeof(uint64_t) + 1> digits{}; // what is beyond them is cut
    (void)snprintf(digits.data(), digits.size(), "%s%s", strlen(text) % 2 == 1 ? "0" : "", text);
    const int count = atoh(digits.data(), bytes.data(), bytes.size());
    uint64_t value = 0;
    for (int i = 0; i < count; i++) {
        value = value << 8 | bytes[static_cast<size_t>(i)];
    }
    return value;
}

void interface_get_row(sqlite3_stmt *row, interface_config *record) {
    record->portId = number<uint8_t>(row, INTERFACE_PORT_ID);
    record->frameFormat = number<int32_t>(row, INTERFACE_FRAME_FORMAT);
    record->baudrate = number<int32_t>(row, INTERFACE_BAUDRATE);
    record->initialDelay = number<int32_t>(row, INTERFACE_INITIAL_DELAY);
    record->busOffReset = flag(row, INTERFACE_BUS_OFF_RESET);
    record->resistor = flag(row, INTERFACE_RESISTOR);
}

int device_get_row(sqlite3_stmt *row, device_config *record) {
    record->deviceId = number<uint8_t>(row, DEVICE_ID);
    record->portId = number<uint8_t>(row, DEVICE_PORT_ID);
    return copy_text(row, DEVICE_NAME, &record->deviceName);
}

int transaction_get_row(sqlite3_stmt *row, transaction_config *record) {
    record->transactionId = number<uint16_t>(row, TRANSACTION_ID);
    record->deviceId = number<uint8_t>(row, TRANSACTION_DEVICE_ID);
    record->transactionEnable = number<uint8_t>(row, TRANSACTION_ENABLE);
    record->transactionType = number<uint8_t>(row, TRANSACTION_TYPE);
    record->triggerMode = number<uint8_t>(row, TRANSACTION_TRIGGER_MODE);
    record->cyclicInterval = number<int32_t>(row, TRANSACTION_CYCLIC_INTERVAL);
    record->fpFunc = number<uint8_t>(row, TRANSACTION_FP_FUNC);
    record->fpTimeout = number<uint16_t>(row, TRANSACTION_FP_TIMEOUT);
    record->triggerByRTR = number<uint8_t>(row, TRANSACTION_TRIGGER_BY_RTR);
    record->consumeToutEnable = number<uint8_t>(row, TRANSACTION_CONSUME_TOUT_ENABLE);
    record->consumeTimeout = number<uint16_t>(row, TRANSACTION_CONSUME_TIMEOUT);
    record->timeoutRetry = number<uint8_t>(row, TRANSACTION_TIMEOUT_RETRY);
    record->responseTimeout = number<int32_t>(row, TRANSACTION_RESPONSE_TIMEOUT);
    return copy_text(row, TRANSACTION_NAME, &record->transactionName);
}

void frame_get_row(sqlite3_stmt *row, frame_config *record) {
    record->frameId = number<uint16_t>(row, FRAME_ID);
    record->transactionId = number<uint16_t>(row, FRAME_TRANSACTION_ID);
    record->canId = number<int32_t>(row, FRAME_CAN_ID);
    record->dataLength = number<uint8_t>(row, FRAME_DATA_LENGTH);
    record->frameType = number<uint8_t>(row, FRAME_TYPE);
}

int block_get_row(sqlite3_stmt *row, block_config *record) {
    const int kind = sqlite3_column_int(row, BLOCK_TYPE);
    record->blockType = static_cast<uint8_t>(kind);
    switch (kind) {
    case BLOCK_TAG:
        return tag_get_row(row, record);
    case BLOCK_CONSTANT:
        return constant_get_row(row, record);
    default:
        log_error("param fail\n");
        return -1;
    }
}
