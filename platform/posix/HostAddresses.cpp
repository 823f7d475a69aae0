// SPDX-License-Identifier: MIT

#include "platform/HostAddresses.h"

#include <memory>

#include <ifaddrs.h>

#include "platform/posix/HostAddressList.h"
#include "support/Files.h"

namespace tarnvale::NetworkFirewall {

namespace {

struct FreeIfaddrs {
    void operator()(ifaddrs* list) const noexcept { ::freeifaddrs(list); }
};

}  // namespace

std::vector<HostAddress> hostAddresses() {
    ifaddrs* list = nullptr;
    if (support::persistently([&] { return ::getifaddrs(&list); }) != 0) {
        return {};
    }
    const std::unique_ptr<ifaddrs, FreeIfaddrs> owner(list);
    return hostAddresses(list);
}

}  // namespace tarnvale::NetworkFirewall
