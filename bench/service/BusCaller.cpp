// SPDX-License-Identifier: MIT
//
// bus_caller ADDRESS NAME PATH INTERFACE PROPERTY: has the bus start the service of that name by
// reading a property of it; prints the time of the reply, in microseconds of the steady clock.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <systemd/sd-bus.h>

namespace {

void require(int result, const char* step) {
    if (result < 0) {
        std::fprintf(stderr, "%s: %s\n", step, std::strerror(-result));
        std::exit(EXIT_FAILURE);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fputs("usage: bus_caller ADDRESS NAME PATH INTERFACE PROPERTY\n", stderr);
        return EXIT_FAILURE;
    }
    sd_bus* bus = nullptr;
    require(::sd_bus_new(&bus), "sd_bus_new");
    require(::sd_bus_set_address(bus, argv[1]), argv[1]);
    require(::sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
    require(::sd_bus_start(bus), "sd_bus_start");
    sd_bus_message* reply = nullptr;
    require(
        ::sd_bus_call_method(
            bus,
            argv[2],
            argv[3],
            "org.freedesktop.DBus.Properties",
            "Get",
            nullptr,
            &reply,
            "ss",
            argv[4],
            argv[5]),
        argv[2]);
    const std::chrono::duration<double, std::micro> now =
        std::chrono::steady_clock::now().time_since_epoch();
    std::printf("%.3f\n", now.count());
    ::sd_bus_message_unref(reply);
    ::sd_bus_flush_close_unref(bus);
    return EXIT_SUCCESS;
}
