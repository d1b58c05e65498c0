#include "preload/next.h"

#include <atomic>
#include <dlfcn.h>

namespace softcan {
namespace {

next_calls calls;
std::atomic<bool> resolved;

template <typename Call>
void find(Call &call, const char *name) {
    call = reinterpret_cast<Call>(dlsym(RTLD_NEXT, name));
}

// Threads that get here together store the same values.
void resolve() {
    find(calls.socket, "socket");
    find(calls.bind, "bind");
    find(calls.connect, "connect");
    find(calls.shutdown, "shutdown");
    find(calls.getsockname, "getsockname");
    find(calls.getpeername, "getpeername");
    find(calls.setsockopt, "setsockopt");
    find(calls.getsockopt, "getsockopt");
    find(calls.ioctl, "ioctl");
    find(calls.fcntl, "fcntl");
    find(calls.fcntl64, "fcntl64");
    find(calls.close, "close");
    find(calls.close_range, "close_range");
    find(calls.closefrom, "closefrom");
    find(calls.fclose, "fclose");
    find(calls.dup, "dup");
    find(calls.dup2, "dup2");
    find(calls.dup3, "dup3");
    find(calls.read, "read");
    find(calls.readv, "readv");
    find(calls.recv, "recv");
    find(calls.recvfrom, "recvfrom");
    find(calls.recvmsg, "recvmsg");
    find(calls.recvmmsg, "recvmmsg");
    find(calls.read_chk, "__read_chk");
    find(calls.recv_chk, "__recv_chk");
    find(calls.recvfrom_chk, "__recvfrom_chk");
    find(calls.write, "write");
    find(calls.writev, "writev");
    find(calls.send, "send");
    find(calls.sendto, "sendto");
    find(calls.sendmsg, "sendmsg");
    find(calls.sendmmsg, "sendmmsg");
    find(calls.if_nametoindex, "if_nametoindex");
    find(calls.if_indextoname, "if_indextoname");
    find(calls.if_nameindex, "if_nameindex");
    resolved.store(true, std::memory_order_release);
}

} // namespace

const next_calls &next() {
    if (!resolved.load(std::memory_order_acquire)) {
        resolve();
    }
    return calls;
}

} // namespace softcan
