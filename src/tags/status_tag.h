#ifndef KT_TAGS_STATUS_TAG_H
#define KT_TAGS_STATUS_TAG_H

#include <cstdint>

/*
 * One status tag per device.
 *
 * THREAD SAFETY: init and release belong to the main thread while no port thread runs. Port threads
 * create tags under the table's mutex and then update their own devices' slots without it.
 */

enum device_status : uint32_t {
    DEVICE_COMMUNICATING = 0,     /* a frame of the device was received */
    DEVICE_UNKNOWN = 0x80000000U, /* no frame seen yet */
    DEVICE_TIMEOUT = 0x80000001U  /* a request or a consumed frame timed out */
};

/** Slot index of a device that got no status tag; no table has that many slots. */
constexpr uint8_t no_device_index = UINT8_MAX;

/** Make a table for that many devices, every status DEVICE_UNKNOWN. */
void can_proprietary_device_status_init(uint8_t count);

/** Destroy every status tag and the table. */
void can_proprietary_device_status_release();

/**
 * Create the status tag "can_proprietary/<device>/status" in the first free slot.
 *
 * @param[out] device_index  the slot, untouched on failure
 * @retval  0
 * @retval -1  missing argument (logged) or the tag cannot be created
 * @retval -4  no free slot (logged)
 */
int can_proprietary_create_device_status_tag(const char *device_name, uint8_t *device_index);

/**
 * Publish a device's status; nothing when it has not changed.
 * @retval 0 @retval -1 slot above the count, slot without tag, or failed write (logged)
 */
int can_proprietary_update_status_tag(uint8_t device_index, uint32_t value);

#endif
