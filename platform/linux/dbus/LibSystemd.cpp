// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/LibSystemd.h"

#include <stdexcept>
#include <string>

#include <dlfcn.h>

namespace tarnvale::platform {
namespace {

constexpr const char* libraryName = "libsystemd.so.0";

/// `symbol` becomes the address of the library's function or constant of that name.
template <class Symbol>
void resolve(void* library, const char* name, Symbol& symbol) {
    void* const address = ::dlsym(library, name);
    if (address == nullptr) {
        throw std::runtime_error(std::string(libraryName) + " has no " + name + ".");
    }
    symbol = reinterpret_cast<Symbol>(address);
}

LibSystemd load() {
    void* const library = ::dlopen(libraryName, RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        throw std::runtime_error(std::string("Could not load ") + libraryName + ".");
    }
    LibSystemd functions{};
    resolve(library, "sd_bus_object_vtable_format", functions.objectVtableFormat);
    resolve(library, "sd_bus_new", functions.busNew);
    resolve(library, "sd_bus_close_unref", functions.busCloseUnref);
    resolve(library, "sd_bus_set_fd", functions.busSetFd);
    resolve(library, "sd_bus_set_server", functions.busSetServer);
    resolve(library, "sd_bus_set_anonymous", functions.busSetAnonymous);
    resolve(library, "sd_bus_set_trusted", functions.busSetTrusted);
    resolve(library, "sd_bus_negotiate_fds", functions.busNegotiateFds);
    resolve(library, "sd_bus_start", functions.busStart);
    resolve(library, "sd_bus_is_ready", functions.busIsReady);
    resolve(library, "sd_bus_process", functions.busProcess);
    resolve(library, "sd_bus_get_events", functions.busGetEvents);
    resolve(library, "sd_bus_get_n_queued_write", functions.busGetQueuedWrite);
    resolve(library, "sd_bus_send", functions.busSend);
    resolve(library, "sd_bus_add_object_vtable", functions.busAddObjectVtable);
    resolve(library, "sd_bus_message_new_method_return", functions.messageNewMethodReturn);
    resolve(library, "sd_bus_message_unref", functions.messageUnref);
    resolve(library, "sd_bus_message_get_expect_reply", functions.messageGetExpectReply);
    resolve(library, "sd_bus_message_read_basic", functions.messageReadBasic);
    resolve(library, "sd_bus_message_read_array", functions.messageReadArray);
    resolve(library, "sd_bus_message_append_basic", functions.messageAppendBasic);
    resolve(library, "sd_bus_message_open_container", functions.messageOpenContainer);
    resolve(library, "sd_bus_message_close_container", functions.messageCloseContainer);
    return functions;
}

}  // namespace

const LibSystemd& LibSystemd::get() {
    static const LibSystemd functions = load();
    return functions;
}

}  // namespace tarnvale::platform
