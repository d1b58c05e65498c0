#ifndef KT_CONFIG_TABLES_H
#define KT_CONFIG_TABLES_H

#include <cstdint>
#include <span>

/*
 * The five tables as the configuration file sees them: columns in order, how a value is written,
 * what stands in for one that is not relevant, and when it is relevant. Import and export walk the
 * same rows.
 */

enum class column_kind : uint8_t {
    NUMBER,
    FLAG,   /* any number but 0 is 1 */
    CAN_ID, /* hexadecimal in the file */
    REAL,
    TEXT,
    NAME,    /* text of letters, digits, "-", ".", "_" and "~" */
    CONSTANT /* hexadecimal text, padded to constantSize */
};

/** Facts about a row that make columns relevant. */
enum relevance : uint16_t {
    ALWAYS = 0,
    PRODUCING = 1 << 0,
    SENDING = 1 << 1, /* producing or requesting */
    CONSUMING = 1 << 2,
    REQUESTING = 1 << 3,
    CYCLIC = 1 << 4,
    PROTECTED = 1 << 5,
    TIMED = 1 << 6,
    TAG = 1 << 7,
    CONSTANT = 1 << 8,
    FAULT_VALUE = 1 << 9, /* a tag of a transaction whose fpFunc is 2 */
    SCALABLE = 1 << 10,
    INTERCEPT = 1 << 11,
    POINTS = 1 << 12
};

struct column {
    const char *name;
    column_kind kind;
    const char *fallback; /* SQL of the default; text with its quotes */
    relevance when;
    uint8_t source;   /* column that an export reads, this one's own position as a rule */
    uint8_t text_max; /* bytes of a text that an export writes, 0 for no bound */
};

/** A value of a column that makes others relevant. */
struct activation {
    uint8_t column;
    int32_t lowest;
    int32_t highest;
    uint16_t needs; /* relevances that must hold for the column itself */
    uint16_t gives;
};

struct table {
    const char *name;
    const char *head;   /* "[device]" */
    const char *header; /* column names, separated by commas */
    std::span<const column> columns;
    std::span<const activation> activations;
};

enum table_id {
    TABLE_INTERFACE,
    TABLE_DEVICE,
    TABLE_TRANSACTIONS,
    TABLE_FRAME,
    TABLE_BLOCK,
    TABLE_COUNT
};

/** The table with that id; in this order the sections of a file are written. */
const table &table_of(table_id id);

/** Relevances that a value of a column adds to those known so far. */
uint16_t relevance_of(const table &table, uint8_t column, int32_t value, uint16_t known);

/** Whether any value of the column makes others relevant. */
bool gives_relevance(const table &table, uint8_t column);

inline bool is_relevant(const column &column, uint16_t known) {
    return column.when == ALWAYS || (column.when & known) != 0;
}

#endif
