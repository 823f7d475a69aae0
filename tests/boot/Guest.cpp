// SPDX-License-Identifier: MIT

#include "tests/boot/Guest.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <vector>

#include <poll.h>
#include <sys/socket.h>

#include "tests/support/Qemu.h"

namespace tarnvale::test {
namespace {

using namespace std::chrono_literals;

/// No step takes as long, on the slowest machine.
constexpr std::chrono::milliseconds answerLimit = 5min;

/// The number of the port's descriptor in qemu.
constexpr int portThere = 3;

/// How much of the console a failure shows.
constexpr std::size_t maxConsoleShown = 4000;

std::pair<support::UniqueFd, support::UniqueFd> connectedSockets() {
    std::array<int, 2> ends{};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    return {support::UniqueFd(ends[0]), support::UniqueFd(ends[1])};
}

std::vector<std::string> machineCommand(const std::string& folder) {
    const auto disk = [&](const std::string& name, const std::string& how) {
        return "if=virtio,format=raw,cache=unsafe," + how + ",file=" + folder + "/" + name;
    };
    return with(
        qemuCommand(
            folder + "/kernel", folder + "/initrd", "root=/dev/vda rw console=ttyS0 panic=-1"),
        {"-drive",
         disk("disk", "snapshot=on"),
         "-drive",
         disk("payload.tar", "readonly=on"),
         "-serial",
         "file:/dev/fd/1",
         "-chardev",
         "socket,id=port,fd=" + std::to_string(portThere),
         "-device",
         "virtio-serial-pci",
         "-device",
         "virtserialport,chardev=port,name=test"});
}

}  // namespace

Guest::Guest(const std::string& folder) : Guest(folder, connectedSockets()) {}

Guest::Guest(const std::string& folder, std::pair<support::UniqueFd, support::UniqueFd> port)
    : port_(std::move(port.first)),
      machine_(
          machineCommand(folder),
          {},
          {.environment = {}, .descriptors = {{port.second.get(), portThere}}}) {
    awaitBoot();
}

Guest::Answer Guest::run(const std::string& script) {
    send(script);
    std::istringstream answer(readLine());
    int status = -1;
    std::size_t size = 0;
    if (!(answer >> status >> size)) {
        fail("understood nothing");
    }
    return {status, read(size)};
}

void Guest::reboot() {
    send("systemctl --no-block reboot");
    awaitBoot();
}

void Guest::awaitBoot() {
    // The reply to what made it reboot may come or not.
    while (!readLine().starts_with("booted ")) {
    }
}

void Guest::send(const std::string& script) {
    const std::string message = std::to_string(script.size()) + "\n" + script;
    for (std::string_view text = message; !text.empty();) {
        const ssize_t sent = ::send(port_.get(), text.data(), text.size(), MSG_NOSIGNAL);
        if (sent < 0) {
            fail("takes nothing");
        }
        text.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::string Guest::readLine() {
    std::string line;
    while (true) {
        const std::string next = read(1);
        if (next == "\n") {
            return line;
        }
        line += next;
    }
}

std::string Guest::read(std::size_t size) {
    std::string text(size, '\0');
    for (std::size_t read = 0; read < size;) {
        pollfd answer{.fd = port_.get(), .events = POLLIN, .revents = 0};
        if (::poll(&answer, 1, static_cast<int>(answerLimit.count())) != 1) {
            fail("doesn't answer");
        }
        const ssize_t received = ::recv(port_.get(), &text[read], size - read, 0);
        if (received <= 0) {
            fail("has ended");
        }
        read += static_cast<std::size_t>(received);
    }
    return text;
}

void Guest::fail(const std::string& what) {
    port_.reset();
    const std::string console = machine_.output();
    const std::size_t shown = std::min(console.size(), maxConsoleShown);
    throw std::runtime_error(
        "The guest " + what + ". " + machine_.error() + "Its console:\n" +
        console.substr(console.size() - shown));
}

}  // namespace tarnvale::test
