// SPDX-License-Identifier: MIT
//
// The functions of libsystemd that we call, loaded when the first of them is needed. Linked in the
// usual way, the library and those it depends on would cost each start of a one-shot mode more
// than all of its own work.

#pragma once

#include <systemd/sd-bus.h>

namespace tarnvale::platform {

struct LibSystemd {
    /// The loaded library, once for the process. Throws `std::runtime_error` when it is not there.
    static const LibSystemd& get();

    /// What the first entry of a method table points at (sd-bus-vtable.h).
    const unsigned* objectVtableFormat;

    decltype(&::sd_bus_new) busNew;
    decltype(&::sd_bus_close_unref) busCloseUnref;
    decltype(&::sd_bus_set_fd) busSetFd;
    decltype(&::sd_bus_set_server) busSetServer;
    decltype(&::sd_bus_set_anonymous) busSetAnonymous;
    decltype(&::sd_bus_set_trusted) busSetTrusted;
    decltype(&::sd_bus_negotiate_fds) busNegotiateFds;
    decltype(&::sd_bus_start) busStart;
    decltype(&::sd_bus_is_ready) busIsReady;
    decltype(&::sd_bus_process) busProcess;
    decltype(&::sd_bus_get_events) busGetEvents;
    decltype(&::sd_bus_get_n_queued_write) busGetQueuedWrite;
    decltype(&::sd_bus_send) busSend;
    decltype(&::sd_bus_add_object_vtable) busAddObjectVtable;
    decltype(&::sd_bus_message_new_method_return) messageNewMethodReturn;
    decltype(&::sd_bus_message_unref) messageUnref;
    decltype(&::sd_bus_message_get_expect_reply) messageGetExpectReply;
    decltype(&::sd_bus_message_read_basic) messageReadBasic;
    decltype(&::sd_bus_message_read_array) messageReadArray;
    decltype(&::sd_bus_message_append_basic) messageAppendBasic;
    decltype(&::sd_bus_message_open_container) messageOpenContainer;
    decltype(&::sd_bus_message_close_container) messageCloseContainer;
};

}  // namespace tarnvale::platform
