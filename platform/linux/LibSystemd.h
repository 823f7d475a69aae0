// SPDX-License-Identifier: MIT
//
// The functions of libsystemd that we call. The library is loaded when the first of them is needed.

#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-login.h>

#include "platform/linux/SharedLibrary.h"

namespace tarnvale::platform {

#define TARNVALE_LIBSYSTEMD_SYMBOLS(SYMBOL)  \
    SYMBOL(sd_bus_add_filter)                \
    SYMBOL(sd_bus_add_object_vtable)         \
    SYMBOL(sd_bus_call)                      \
    SYMBOL(sd_bus_close)                     \
    SYMBOL(sd_bus_close_unref)               \
    SYMBOL(sd_bus_error_free)                \
    SYMBOL(sd_bus_get_events)                \
    SYMBOL(sd_bus_get_n_queued_write)        \
    SYMBOL(sd_bus_is_ready)                  \
    SYMBOL(sd_bus_message_append_array)      \
    SYMBOL(sd_bus_message_append_basic)      \
    SYMBOL(sd_bus_message_close_container)   \
    SYMBOL(sd_bus_message_enter_container)   \
    SYMBOL(sd_bus_message_exit_container)    \
    SYMBOL(sd_bus_message_get_bus)           \
    SYMBOL(sd_bus_message_get_expect_reply)  \
    SYMBOL(sd_bus_message_get_interface)     \
    SYMBOL(sd_bus_message_get_member)        \
    SYMBOL(sd_bus_message_get_path)          \
    SYMBOL(sd_bus_message_get_signature)     \
    SYMBOL(sd_bus_message_is_method_call)    \
    SYMBOL(sd_bus_message_new_method_call)   \
    SYMBOL(sd_bus_message_new_method_return) \
    SYMBOL(sd_bus_message_open_container)    \
    SYMBOL(sd_bus_message_read_array)        \
    SYMBOL(sd_bus_message_read_basic)        \
    SYMBOL(sd_bus_message_unref)             \
    SYMBOL(sd_bus_negotiate_fds)             \
    SYMBOL(sd_bus_new)                       \
    SYMBOL(sd_bus_object_vtable_format)      \
    SYMBOL(sd_bus_process)                   \
    SYMBOL(sd_bus_reply_method_errno)        \
    SYMBOL(sd_bus_reply_method_errorf)       \
    SYMBOL(sd_bus_send)                      \
    SYMBOL(sd_bus_set_anonymous)             \
    SYMBOL(sd_bus_set_fd)                    \
    SYMBOL(sd_bus_set_server)                \
    SYMBOL(sd_bus_set_trusted)               \
    SYMBOL(sd_bus_start)                     \
    SYMBOL(sd_bus_wait)                      \
    SYMBOL(sd_notify)                        \
    SYMBOL(sd_seat_get_active)               \
    SYMBOL(sd_session_get_class)             \
    SYMBOL(sd_session_get_state)             \
    SYMBOL(sd_session_get_uid)

/// The address of each under its own name, with the type that systemd's headers give it.
struct LibSystemd {
    TARNVALE_LIBSYSTEMD_SYMBOLS(TARNVALE_DECLARE_SYMBOL)

    /// The library, loaded once for the process; a failed attempt is repeated on the next call.
    /// Safe from any thread. Throws `SharedLibraryError`.
    static const LibSystemd& get();
};

}  // namespace tarnvale::platform
