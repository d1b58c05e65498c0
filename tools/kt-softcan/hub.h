#ifndef KT_SOFTCAN_HUB_H
#define KT_SOFTCAN_HUB_H

#include "protocol.h"

#include <csignal>
#include <cstdint>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

/*
 * The hub of a world: one thread that takes frames from senders and hands them to receivers.
 *
 * A receiver that does not read costs nobody anything: its frames wait in the hub, and once they
 * fill the receive buffer it asked for they are dropped and counted for it alone.
 */
namespace softcan {

struct connection {
    int fd = -1;
    bool is_socket = false; // else a connection for requests
    bool gone = false;
    bool wants_output = false;
    bool dirty = false; // frames were queued since the last flush
    std::uint32_t slot = 0;
    std::uint32_t limit = 0;     // frames the receive buffer holds
    std::uint32_t in_flight = 0; // frames handed to the kernel; too high until recounted
    std::vector<can_filter> filters;
    std::deque<frame_message> queue;
};

struct hub {
    world_region *region = nullptr;
    int region_fd = -1;
    int listener = -1;
    int poller = -1;
    std::uint32_t next_ifindex = first_ifindex;
    std::uint32_t message_cost = 0; // bytes of send buffer one message takes
    std::vector<std::unique_ptr<connection>> connections;
    std::vector<connection *> sockets; // of the connections those that are CAN sockets
    std::minstd_rand random;
};

/** What the launcher made before it started the hub; the hub owns the descriptors. */
struct hub_setup {
    int listener = -1;
    int region_fd = -1;
    int lifeline = -1; // reads end of file when the launcher is gone
    world_region *region = nullptr;
    std::string path; // removed at the end
};

/** Serve until the launcher is gone or SIGTERM. Returns the exit status of the hub process. */
int hub_run(const hub_setup &setup);

// bus.cpp

/** Take the frames a program has sent, at most `budget` of them, and pass them on. */
void read_frames(hub &world, connection &sender, unsigned budget);

/** Queue a frame for every socket that is to receive it; sender is nullptr for the bus itself. */
void broadcast(hub &world,
               port_record &port,
               const std::uint8_t (&frame)[CAN_MTU],
               const connection *sender);

/** Hand queued frames to the kernel as far as it takes them. */
void flush(hub &world, connection &receiver);
void flush_dirty(hub &world);

/** Everything sent before now is taken and passed on. */
void drain(hub &world);

/** Set the socket's pending error and wake whoever waits for it. */
void post_error(hub &world, connection &receiver, int error);

// hub_control.cpp

/** Read and answer one request. */
void answer_request(hub &world, connection &client);

/** Add a port that is down; 0 or errno. */
int add_port(hub &world, std::string_view name);

socket_slot &slot_of(hub &world, const connection &socket);

} // namespace softcan

#endif
