#ifndef KT_CONFIG_MODEL_H
#define KT_CONFIG_MODEL_H

#include <cstdint>

/*
 * Configuration records: what the rows of the five tables look like in memory.
 *
 * Records are allocated zeroed with calloc(); every text is a heap copy owned by its record. Lists
 * are linked through next. The widths of the key fields bound the keys that the schema accepts.
 */

enum transaction_type : uint8_t {
    TRANSACTION_PRODUCE = 0, /* one frame sent */
    TRANSACTION_CONSUME = 1, /* one frame received */
    TRANSACTION_REQUEST = 2  /* request sent, response received */
};

enum trigger_mode : uint8_t { TRIGGER_CYCLIC = 0, TRIGGER_ON_CHANGE = 1, TRIGGER_BOOTUP = 2 };

enum fault_protection : uint8_t {
    FAULT_PROTECTION_NONE = 0,
    FAULT_PROTECTION_ZERO = 1, /* all zero bytes */
    FAULT_PROTECTION_VALUE = 2 /* each tag's fpData */
};

enum frame_type : uint8_t {
    FRAME_PRODUCED = 0,
    FRAME_CONSUMED = 1,
    FRAME_REQUEST = 2,
    FRAME_RESPONSE = 3
};

enum block_type : uint8_t { BLOCK_TAG = 0, BLOCK_CONSTANT = 1 };

enum tag_type : uint8_t {
    TAG_INT8 = 1,
    TAG_INT16 = 2,
    TAG_INT32 = 3,
    TAG_INT64 = 4,
    TAG_UINT8 = 5,
    TAG_UINT16 = 6,
    TAG_UINT32 = 7,
    TAG_UINT64 = 8,
    TAG_FLOAT = 9,
    TAG_DOUBLE = 10,
    TAG_SCALABLE_MAX = 12,
    TAG_RAW = 13
};

enum scaling_function : uint8_t { SCALING_NONE = 0, SCALING_INTERCEPT = 1, SCALING_POINTS = 2 };

/* Bytes of the fixed text fields, without their terminators. */
constexpr unsigned access_max_bytes = 2;
constexpr unsigned fp_data_max_bytes = 24;

struct interface_config {
    uint8_t portId;       /* 1 to the number of ports */
    int32_t frameFormat;  /* 0 standard, 1 extended identifiers */
    int32_t baudrate;     /* index into the bit rate table */
    int32_t initialDelay; /* ms */
    bool busOffReset;
    bool resistor;
};

struct constant_block_config {
    uint16_t blockId;
    uint16_t frameId;
    char *constantName;
    uint8_t startOffset;
    uint8_t constantSize;   /* bytes */
    uint64_t constantValue; /* first byte of the text most significant */
};

/** The four scaling numbers; two names share each of the first two, as two methods share them. */
struct scaling_numbers {
    double a; /* interceptSlope or pointSourceMin */
    double b; /* interceptOffset or pointSourceMax */
    double c; /* pointTargetMin */
    double d; /* pointTargetMax */
};

struct tag_block_config {
    uint16_t blockId;
    uint16_t frameId;
    char *tagName;
    uint8_t tagType;
    uint8_t tagSize; /* bytes */
    char access[access_max_bytes + 1];
    uint8_t swap;
    char fpData[fp_data_max_bytes + 1]; /* hexadecimal digits */
    uint8_t startOffset;
    uint8_t scalingFunc;
    scaling_numbers scaling;
};

struct block_config {
    uint8_t blockType;
    constant_block_config *constant; /* BLOCK_CONSTANT */
    tag_block_config *tag;           /* BLOCK_TAG */
    block_config *next;
};

struct frame_config {
    uint16_t frameId;
    uint16_t transactionId;
    int32_t canId;
    uint8_t dataLength;
    uint8_t frameType;
    block_config *blocks;
    frame_config *next;
};

struct transaction_config {
    uint16_t transactionId;
    uint8_t deviceId;
    char *transactionName;
    uint8_t transactionEnable;
    uint8_t transactionType;
    uint8_t triggerMode;
    int32_t cyclicInterval; /* ms */
    uint8_t consumeToutEnable;
    uint16_t consumeTimeout; /* ms */
    uint8_t timeoutRetry;
    int32_t responseTimeout; /* ms */
    uint8_t triggerByRTR;
    uint8_t fpFunc;
    uint16_t fpTimeout; /* ms */
    frame_config *frames;
    transaction_config *next;
};

struct device_config {
    uint8_t deviceId;
    uint8_t portId;
    char *deviceName;
    transaction_config *transactions;
    device_config *next;
};

/** Counts for an overview; sums wrap at 8 bits. */
struct overview_info {
    uint8_t port_num;
    uint8_t device_num;
    uint8_t transaction_num;
};

/** True for the fault protection functions that use fpTimeout. */
inline bool has_fault_protection(const transaction_config *transaction) {
    return transaction->fpFunc == FAULT_PROTECTION_ZERO ||
           transaction->fpFunc == FAULT_PROTECTION_VALUE;
}

/* Release operations. Each accepts nullptr. */

void conf_free_block_list(block_config *blocks);

/** Frees each frame with its blocks. */
void conf_free_frame_list(frame_config *frames);

/** Frees one transaction with its frames, not its next. */
void conf_free_transaction(transaction_config *transaction);

/** Frees one device with all its transactions, not its next. */
void conf_free_device(device_config *device);

void conf_free_device_list(device_config *devices);

#endif
