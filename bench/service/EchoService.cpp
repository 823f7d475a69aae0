// SPDX-License-Identifier: MIT
//
// echo_service loop|threads: the floor of the service's figures, a bare peer-to-peer D-Bus server
// with the one method that the callers call, without any check, bound or log. It serves the
// listening socket that is its descriptor 3, all connections in one event loop or each in a thread.

#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <thread>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <systemd/sd-id128.h>

namespace {

constexpr int listeningSocket = 3;

void require(int result) {
    if (result < 0) {
        std::abort();
    }
}

int reply(sd_bus_message* call, void* /*data*/, sd_bus_error* /*error*/) {
    return ::sd_bus_reply_method_return(call, "as", 1, "7");
}

const sd_bus_vtable* methods() {
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("HelperVersion", "", "as", reply, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    return table;
}

sd_bus* acceptConnection() {
    const int socket = ::accept4(listeningSocket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    require(socket);
    sd_bus* bus = nullptr;
    sd_id128_t id{};
    require(::sd_id128_randomize(&id));
    require(::sd_bus_new(&bus));
    require(::sd_bus_set_fd(bus, socket, socket));
    require(::sd_bus_set_server(bus, 1, id));
    require(::sd_bus_set_anonymous(bus, 1));
    require(::sd_bus_set_trusted(bus, 1));
    require(::sd_bus_add_object_vtable(
        bus,
        nullptr,
        "/com/brackwen/tarnvale/adminhelper",
        "com.brackwen.tarnvale.adminhelper",
        methods(),
        nullptr));
    require(::sd_bus_start(bus));
    return bus;
}

void serve(sd_bus* bus) {
    int progress = 0;
    while (progress >= 0) {
        progress = ::sd_bus_process(bus, nullptr);
        if (progress == 0) {
            progress = ::sd_bus_wait(bus, UINT64_MAX);
        }
    }
    ::sd_bus_close_unref(bus);
}

[[noreturn]] void serveInThreads() {
    while (true) {
        std::thread(serve, acceptConnection()).detach();
    }
}

int serveInLoop(sd_event_source* source, int /*fd*/, std::uint32_t /*events*/, void* /*data*/) {
    sd_bus* const bus = acceptConnection();
    require(::sd_bus_attach_event(bus, ::sd_event_source_get_event(source), 0));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string_view(argv[1]) == "threads") {
        serveInThreads();
    }
    sd_event* loop = nullptr;
    require(::sd_event_new(&loop));
    require(::sd_event_add_io(loop, nullptr, listeningSocket, EPOLLIN, serveInLoop, nullptr));
    return ::sd_event_loop(loop);
}
