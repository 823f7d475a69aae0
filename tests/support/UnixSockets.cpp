// SPDX-License-Identifier: MIT

#include "tests/support/UnixSockets.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <system_error>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace tarnvale::test {
namespace {

support::UniqueFd streamSocket() {
    return support::UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(std::begin(address.sun_path), sizeof address.sun_path - 1);
    return address;
}

/// The sockets' own type.
const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

}  // namespace

support::UniqueFd connectTo(const std::string& path) {
    support::UniqueFd fd = streamSocket();
    const sockaddr_un address = addressOf(path);
    if (::connect(fd.get(), generic(address), sizeof address) != 0) {
        fd.reset();
    }
    return fd;
}

support::UniqueFd listenAt(const std::string& path) {
    support::UniqueFd fd = streamSocket();
    const sockaddr_un address = addressOf(path);
    ::unlink(path.c_str());
    if (!fd || ::bind(fd.get(), generic(address), sizeof address) != 0 ||
        ::chmod(path.c_str(), 0666) != 0 || ::listen(fd.get(), SOMAXCONN) != 0) {
        throw std::system_error(errno, std::generic_category(), "listen on " + path);
    }
    return fd;
}

bool sendDescriptor(int socket, std::string_view bytes, int descriptor, std::size_t count) {
    iovec all{.iov_base = const_cast<char*>(bytes.data()), .iov_len = bytes.size()};
    // Room that is aligned for a header.
    std::vector<cmsghdr> control(CMSG_SPACE(count * sizeof(int)) / sizeof(cmsghdr) + 1);
    msghdr message{};
    message.msg_iov = &all;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = CMSG_SPACE(count * sizeof(int));
    control.front().cmsg_level = SOL_SOCKET;
    control.front().cmsg_type = SCM_RIGHTS;
    control.front().cmsg_len = CMSG_LEN(count * sizeof(int));
    const std::vector<int> copies(count, descriptor);
    std::memcpy(CMSG_DATA(control.data()), copies.data(), count * sizeof(int));
    return ::sendmsg(socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT) > 0;
}

support::UniqueFd receiveDescriptor(int socket) {
    char byte = 0;
    iovec bytes{.iov_base = &byte, .iov_len = 1};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
    msghdr message{};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    const auto size = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    const cmsghdr* const passed = size == 1 ? CMSG_FIRSTHDR(&message) : nullptr;
    if (passed == nullptr || passed->cmsg_type != SCM_RIGHTS) {
        return {};
    }
    int descriptor = -1;
    std::memcpy(&descriptor, CMSG_DATA(passed), sizeof descriptor);
    return support::UniqueFd(descriptor);
}

}  // namespace tarnvale::test
