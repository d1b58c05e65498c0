#ifndef KT_TESTS_CAN_DX_FAKE_H
#define KT_TESTS_CAN_DX_FAKE_H

#include <kt/dx.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/*
 * The tag service in the memory of the test. Notes "provide", "destroy", "write" and "commit".
 */

/** How the service behaves; can_dx_reset() restores the defaults and forgets what it was asked. */
struct can_dx_settings {
    bool refuse_handle = false;
    bool refuse_tags = false;
    bool fail_writes = false;
    bool fail_reads = false;
    bool share_index = false; /* new tags join the chain of index 0 */
};

can_dx_settings &can_dx();
void can_dx_reset();

/** Tags that exist. */
size_t can_dx_tag_count();

dx_tag *can_dx_find(const std::string &name);
const std::vector<uint8_t> &can_dx_value(const dx_tag *tag);

/** Write a tag as another application does, and deliver the change. */
void can_dx_put(const std::string &name, const std::vector<uint8_t> &value);

/** Write a tag as another application does, without delivery. */
void can_dx_put_silently(const std::string &name, const std::vector<uint8_t> &value);

/** Deliver a bitmap with one bit set. */
void can_dx_deliver(unsigned index);

/** Deliver a bitmap with every bit set. */
void can_dx_deliver_all();

/** Change index of a tag. */
unsigned can_dx_index(const dx_tag *tag);
void can_dx_move(dx_tag *tag, unsigned index);

#endif
