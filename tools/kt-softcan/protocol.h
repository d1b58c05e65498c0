#ifndef KT_SOFTCAN_PROTOCOL_H
#define KT_SOFTCAN_PROTOCOL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <linux/can.h>

/*
 * What the hub of a world, the preloaded library and the commands share.
 *
 * Each CAN socket is an AF_UNIX SOCK_SEQPACKET connection to the hub that carries frame_message in
 * both directions. Everything that needs an answer goes over a connection of its own as request and
 * reply. State that programs only look at stands in a shared memory region which the hub writes.
 */
namespace softcan {

inline constexpr std::uint32_t protocol_magic = 0x4b545343;
inline constexpr std::uint32_t protocol_version = 1;

inline constexpr std::size_t max_ports = 32;     // distinct names in the life of a world
inline constexpr std::size_t max_sockets = 1024; // open CAN sockets at one time
inline constexpr std::size_t max_filters = 512;  // per socket, as CAN_RAW_FILTER_MAX
inline constexpr std::uint32_t first_ifindex = 1001;

// What one classic frame takes from SO_RCVBUF in a kernel.
inline constexpr std::uint32_t frame_cost_bytes = 768;
inline constexpr std::uint32_t max_rcvbuf_bytes = 64U << 20U;

enum class bus_state : std::uint32_t {
    error_active,
    error_warning,
    error_passive,
    bus_off,
    stopped,
};

struct port_record {
    char name[16];                      // fixed from the first use of the record
    std::atomic<std::uint32_t> ifindex; // 0: no such port now
    std::atomic<std::uint32_t> up;
    std::atomic<std::uint32_t> bitrate; // bit/s, 0: never set
    std::atomic<std::uint32_t> restart_ms;
    std::atomic<std::uint32_t> state; // bus_state
    std::atomic<std::uint32_t> termination_ohm;
    std::atomic<std::uint32_t> txqueuelen;
    std::atomic<std::uint32_t> drop_next;       // frames still to lose
    std::atomic<std::uint32_t> drop_ppm;        // frames to lose per million
    std::atomic<std::uint32_t> reserved;        // keeps the 64-bit fields aligned
    std::atomic<std::uint64_t> txfull_until_ns; // CLOCK_MONOTONIC, sends fail until then
    std::atomic<std::uint64_t> frames;          // sent on the port
    std::atomic<std::uint64_t> lost;            // taken away by fault injection
    std::atomic<std::uint64_t> overruns;        // dropped at a full receiver, all sockets
};

enum stamp_mode : std::uint32_t {
    stamp_none = 0,
    stamp_us = 1,  // SO_TIMESTAMP
    stamp_ns = 2,  // SO_TIMESTAMPNS
    stamp_new = 4, // with the 64-bit time layout
};

struct socket_slot {
    std::atomic<std::uint64_t> cookie;        // SO_COOKIE of the program's socket, 0: free
    std::atomic<std::uint64_t> last_stamp_ns; // of the frame last received, CLOCK_REALTIME
    std::atomic<std::uint32_t> error;         // pending errno, taken by whoever reports it
    std::atomic<std::uint32_t> notices;       // notice messages not yet taken from the socket
    std::atomic<std::uint32_t> bound;
    std::atomic<std::uint32_t> ifindex; // 0: all ports
    std::atomic<std::uint32_t> loopback;
    std::atomic<std::uint32_t> recv_own;
    std::atomic<std::uint32_t> join_filters;
    std::atomic<std::uint32_t> fd_frames;
    std::atomic<std::uint32_t> err_mask;
    std::atomic<std::uint32_t> rcvbuf_bytes;
    std::atomic<std::uint32_t> drops;   // frames lost because rcvbuf_bytes was used up
    std::atomic<std::uint32_t> backlog; // frames waiting in the hub
    std::atomic<std::uint32_t> stamps;  // stamp_mode, set by the program
    std::atomic<std::uint32_t> stamping_flags;
    std::atomic<std::uint32_t> rxq_ovfl;
    std::atomic<std::uint32_t> reserved;
};

struct world_region {
    std::uint32_t magic;
    std::uint32_t version;
    port_record ports[max_ports];
    socket_slot slots[max_sockets];
};

static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
static_assert(sizeof(port_record) == 16 + 10 * 4 + 4 * 8);
static_assert(sizeof(socket_slot) == 2 * 8 + 16 * 4);

enum class message_kind : std::uint32_t {
    frame = 1,
    notice = 2, // hub to program: look at socket_slot::error
};

enum frame_flag : std::uint32_t {
    frame_local = 1,       // sent by a program of this world
    frame_own = 2,         // sent through the receiving socket itself
    frame_no_loopback = 4, // program to hub
};

// One size for all, so that bytes in a queue give the number of messages.
struct frame_message {
    message_kind kind;
    std::uint32_t ifindex;
    std::uint32_t flags;    // frame_flag
    std::uint32_t drops;    // frames this socket had lost when the frame was queued
    std::uint64_t stamp_ns; // CLOCK_REALTIME
    std::uint8_t frame[CAN_MTU];
};
static_assert(sizeof(frame_message) == 40);

enum class operation : std::uint32_t {
    map_world = 1, // the reply carries the region's descriptor
    open_socket,   // this connection becomes a CAN socket; value of the reply: its slot
    bind_socket,   // slot, ifindex
    set_option,    // slot, detail: socket_option, value
    set_filters,   // slot, count + filters
    get_filters,   // slot; the reply carries them
    change_link,   // name, detail: mask of link_change, link
    add_port,      // name
    remove_port,   // name
    inject_fault,  // name, detail: fault_kind, value
    inject_error,  // name, error_frame
    restart_port,  // name
    synchronise,   // all frames sent before are delivered
};

enum class socket_option : std::uint32_t {
    loopback,
    recv_own,
    join_filters,
    fd_frames,
    err_mask,
    rcvbuf,
};

enum link_change : std::uint32_t {
    link_down = 1,
    link_up = 2,
    link_bitrate = 4,
    link_restart_ms = 8,
    link_termination = 16,
    link_txqueuelen = 32,
};

enum class fault_kind : std::uint32_t {
    drop_next, // value: frames
    drop_rate, // value: frames per million
    tx_full,   // value: milliseconds, 0: off
    clear,
};

struct link_settings {
    std::uint32_t bitrate;
    std::uint32_t restart_ms;
    std::uint32_t termination_ohm;
    std::uint32_t txqueuelen;
};

struct request {
    std::uint32_t magic;
    std::uint32_t version;
    operation op;
    std::uint32_t slot;
    std::uint64_t cookie;
    std::uint32_t ifindex;
    std::uint32_t detail;
    std::uint32_t value;
    std::uint32_t count; // filters that follow
    char name[16];
    link_settings link;
    std::uint8_t error_frame[CAN_MTU];
};
static_assert(sizeof(request) == 88);

struct reply {
    std::int32_t error; // 0 or errno
    std::uint32_t value;
    std::uint32_t count; // filters that follow
};
static_assert(sizeof(reply) == 12);

} // namespace softcan

#endif
