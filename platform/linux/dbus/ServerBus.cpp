// SPDX-License-Identifier: MIT

#include "platform/linux/dbus/ServerBus.h"

#include <cerrno>
#include <system_error>

#include <sys/random.h>

namespace tarnvale::platform {

Bus makeServerBus(support::UniqueFd input, support::UniqueFd output) {
    sd_bus* made = nullptr;
    checkBus(systemd().sd_bus_new(&made));
    Bus bus(made);

    sd_id128_t id{};
    if (::getrandom(&id, sizeof id, 0) != sizeof id) {
        throw std::system_error(errno, std::generic_category());
    }
    checkBus(systemd().sd_bus_set_server(made, 1, id));
    checkBus(systemd().sd_bus_set_anonymous(made, 1));
    checkBus(systemd().sd_bus_set_trusted(made, 1));
    checkBus(systemd().sd_bus_negotiate_fds(made, 0));
    checkBus(systemd().sd_bus_set_fd(made, input.get(), output.get()));
    input.release();
    output.release();
    return bus;
}

}  // namespace tarnvale::platform
