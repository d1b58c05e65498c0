# Calls that a test of the CAN runtime or of the tags puts its own in the place of.
function(can_wrap_calls target)
    foreach(call ${ARGN})
        target_link_options(${target} PRIVATE -Wl,--wrap=${call})
    endforeach()
endfunction()

# The last two are new(std::nothrow) with 64 and with 32 address bits.
set(can_heap_calls malloc calloc strdup _ZnwmRKSt9nothrow_t _ZnwjRKSt9nothrow_t)
set(can_port_calls
    sendto select recvfrom socket bind setsockopt getsockopt if_nametoindex eventfd nanosleep
    _Z14can_tx_handlerP10can_module)
