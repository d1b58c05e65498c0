#ifndef KT_DEVICE_DIAG_H
#define KT_DEVICE_DIAG_H

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>

/*
 * Diagnostic records: one per port, holding bus state, counters, bus load and the last result of
 * every transaction.
 *
 * THREAD SAFETY: records are created and released by the main thread while no port thread runs. A
 * record is written by its own port thread alone, except for the bus load, which REST computes;
 * shared fields are relaxed atomics, so a reader may see a value change between two fields. A
 * reader outside the port threads holds a diag_read_lock for as long as it uses a record.
 */

enum canbus_state {
    CANBUS_NORMAL = 0,
    CANBUS_ERROR_ACTIVE = 1,
    CANBUS_ERROR_PASSIVE = 2,
    CANBUS_BUS_OFF = 3
};

/** Bus states as texts, by canbus_state. */
extern const std::array<const char *, 4> canbus_state_str;

enum transaction_result : uint8_t {
    RESULT_SUCCESS = 0,
    RESULT_FAILED = 1,
    RESULT_TIMEOUT = 2,
    RESULT_NONE = 255 /* never run */
};

constexpr uint32_t diag_slot_count = 256;

/** Result of one transaction. The names belong to the port's configuration. */
struct diag_slot {
    const char *device_name; /* nullptr while the slot is free */
    const char *transaction_name;
    bool enabled;
    std::atomic<uint8_t> state; /* transaction_result */
    std::atomic<uint32_t> failure_count;
};

struct diag_record {
    std::atomic<const char *> state; /* one of canbus_state_str */
    std::atomic<uint64_t> txCount;   /* frames sent */
    std::atomic<uint64_t> rxCount;   /* data and remote frames received in the port's format */
    std::atomic<uint64_t> crcError;
    std::atomic<uint64_t> bitError;
    std::atomic<uint64_t> stuffError;
    std::atomic<uint64_t> busOffCount;
    std::atomic<uint32_t> transaction_count; /* slots in use */
    std::atomic<uint32_t> bit_rate;          /* bit/s */
    std::atomic<uint64_t> bit_count;         /* bits since the last bus load computation */
    std::atomic<double> busLoading;          /* percent */
    std::atomic<uint32_t> last_load_ms;      /* clock value of that computation, 0 at first */
    std::array<diag_slot, diag_slot_count> slots;
};

/** Keeps the records and the names in their slots alive for a reader outside the port threads. */
class diag_read_lock {
public:
    diag_read_lock();

private:
    std::unique_lock<std::mutex> lock_;
};

/** One zeroed record per port. @retval 0 @retval -2 out of memory (logged) */
int can_proprietary_diag_create_infos(uint8_t port_count);

void can_proprietary_diag_release_infos();

/** The record of a port index, nullptr when there is none. */
diag_record *can_proprietary_diag_get(uint32_t port);

/**
 * Give a transaction the first free slot of its port.
 *
 * @param device_name, transaction_name  stay the caller's, alive until diag_forget_transactions()
 * @return slot index; 0 when all slots are in use or the port has no record, so that the
 *         transaction then reports into the first slot
 */
uint32_t can_proprietary_diag_register(uint32_t port,
                                       const char *device_name,
                                       const char *transaction_name,
                                       bool enabled);

/** Empty a port's slots before their names are released. Waits for a reader. */
void can_proprietary_diag_forget_transactions(uint32_t port);

/**
 * Note the outcome of a run. A changed outcome raises an event and sets the LED; failures and
 * timeouts are counted on every call.
 */
void can_proprietary_diag_set_result(uint32_t port, uint32_t slot, transaction_result result);

void can_proprietary_diag_set_bus_state(uint32_t port, canbus_state state);
void can_proprietary_diag_set_bit_rate(uint32_t port, int32_t baudrate);

/** Add one to a counter that only the port's own thread writes. */
inline void diag_count(std::atomic<uint64_t> &counter) {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

/** Bits of one frame on the bus as the load reckons them: 67 and 8 for each data byte. */
inline void diag_count_bits(diag_record *record, uint8_t dlc) {
    record->bit_count.fetch_add(67U + 8U * dlc, std::memory_order_relaxed);
}

/**
 * Compute busLoading from the bits since the last call (the first call: since clock value 0) and
 * start counting anew. Loads of 65.536 % and above wrap, on purpose: clients know the figure so.
 */
void can_proprietary_diag_update_bus_loading(uint32_t port, uint32_t bit_rate);

#endif
