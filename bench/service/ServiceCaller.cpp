// SPDX-License-Identifier: MIT
//
// service_caller SOCKET WORK…: the client that is signed and sent to a service or to its floor. It
// writes D-Bus by hand, so that as little as possible of what is measured is its own:
//
//     rate CONNECTIONS CALLS   calls on each of so many connections, each awaiting its reply before
//                              the next; the microseconds of one call
//     connect TIMES            connections, each with its handshake and one call, one after the
//                              other; the microseconds of the median one
//     first                    connects, says so, and after the reply to its first call the clock,
//                              in microseconds
//     apply FILE               sends an ApplyFirewall call with the file's bytes; the microseconds
//                              until its reply
//     hold CONNECTIONS         opens so many, with a call each, says so, and holds them until its
//                              input ends

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const char* step) {
    std::perror(step);
    std::exit(EXIT_FAILURE);
}

/// A call of the helper's method, little-endian, its argument bytes if it has a signature.
std::string callOf(std::string_view method, std::string_view signature, std::string_view argument) {
    std::string bytes;
    const auto pad = [&bytes](std::size_t alignment) {
        bytes.resize((bytes.size() + alignment - 1) / alignment * alignment);
    };
    const auto number = [&bytes](std::size_t value) {
        const auto word = static_cast<std::uint32_t>(value);
        bytes.append(reinterpret_cast<const char*>(&word), sizeof word);
    };
    const auto field = [&](char code, char type, std::string_view text) {
        pad(8);
        bytes += {code, '\1', type, '\0'};
        number(text.size());
        bytes.append(text).push_back('\0');
    };
    field('\1', 'o', "/com/brackwen/tarnvale/adminhelper");
    field('\2', 's', "com.brackwen.tarnvale.adminhelper");
    field('\3', 's', method);
    if (!signature.empty()) {
        pad(8);
        bytes += {'\10', '\1', 'g', '\0', static_cast<char>(signature.size())};
        bytes.append(signature).push_back('\0');
    }
    const std::string fields = std::exchange(bytes, {'l', '\1', '\0', '\1'});
    number(signature.empty() ? 0 : sizeof(std::uint32_t) + argument.size());
    number(1);  // the serial; nobody here looks at it
    number(fields.size());
    bytes += fields;
    pad(8);
    if (!signature.empty()) {
        number(argument.size());
        bytes += argument;
    }
    return bytes;
}

class Connection {
public:
    explicit Connection(const char* path) : fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
        const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
        if (fd_ < 0 || ::connect(fd_, generic, sizeof address) != 0) {
            fail("connect");
        }
        send(std::string_view("\0AUTH ANONYMOUS\r\nBEGIN\r\n", 24));
    }
    Connection(Connection&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { ::close(fd_); }

    /// Takes the one line that the server says.
    void finishHandshake() {
        do {
            read();
        } while (!std::string_view(buffer_.data(), size_).ends_with("\r\n"));
        size_ = 0;
    }

    void send(std::string_view bytes) {
        while (!bytes.empty()) {
            const auto sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent < 0) {
                fail("send");
            }
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
    }

    /// Takes the reply, which must report success.
    void awaitReply() {
        constexpr std::size_t header = 16;
        while (size_ < header || size_ < messageSize()) {
            read();
        }
        if (buffer_[1] != 2) {
            errno = EPROTO;
            fail("reply");
        }
        size_ = 0;
    }

private:
    void read() {
        if (size_ == buffer_.size()) {
            buffer_.resize(2 * size_);
        }
        const auto got = ::recv(fd_, buffer_.data() + size_, buffer_.size() - size_, 0);
        if (got <= 0) {
            fail("recv");
        }
        size_ += static_cast<std::size_t>(got);
    }

    std::size_t numberAt(std::size_t offset) const {
        std::uint32_t value = 0;
        std::memcpy(&value, buffer_.data() + offset, sizeof value);
        return value;
    }

    std::size_t messageSize() const { return 16 + (numberAt(12) + 7) / 8 * 8 + numberAt(4); }

    int fd_;
    std::vector<char> buffer_ = std::vector<char>(4096);
    std::size_t size_ = 0;
};

double microsecondsSince(Clock::time_point start) {
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

std::vector<Connection> openAll(const char* path, std::size_t count, std::string_view call) {
    std::vector<Connection> connections;
    connections.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        connections.emplace_back(path).finishHandshake();
        connections.back().send(call);
        connections.back().awaitReply();
    }
    return connections;
}

void rate(const char* path, std::size_t count, std::size_t calls) {
    const auto call = callOf("HelperVersion", "", "");
    auto connections = openAll(path, count, call);
    const auto start = Clock::now();
    for (std::size_t round = 0; round < calls; ++round) {
        for (auto& connection : connections) {
            connection.send(call);
        }
        for (auto& connection : connections) {
            connection.awaitReply();
        }
    }
    std::printf("%.3f\n", microsecondsSince(start) / static_cast<double>(calls * count));
}

void connect(const char* path, std::size_t times) {
    const auto call = callOf("HelperVersion", "", "");
    std::vector<double> taken(times);
    for (auto& time : taken) {
        const auto start = Clock::now();
        Connection connection(path);
        connection.finishHandshake();
        connection.send(call);
        connection.awaitReply();
        time = microsecondsSince(start);
    }
    const auto middle = taken.begin() + static_cast<std::ptrdiff_t>(times / 2);
    std::nth_element(taken.begin(), middle, taken.end());
    std::printf("%.3f\n", *middle);
}

void first(const char* path) {
    Connection connection(path);
    std::puts("waiting");
    std::fflush(stdout);
    connection.finishHandshake();
    connection.send(callOf("HelperVersion", "", ""));
    connection.awaitReply();
    std::printf("%.3f\n", microsecondsSince({}));
}

void apply(const char* path, const char* file) {
    const int fd = ::open(file, O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (fd < 0 || ::fstat(fd, &status) != 0) {
        fail(file);
    }
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    if (::read(fd, bytes.data(), bytes.size()) != status.st_size) {
        fail(file);
    }
    ::close(fd);
    Connection connection(path);
    connection.finishHandshake();
    const auto call = callOf("ApplyFirewall", "ay", bytes);
    const auto start = Clock::now();
    connection.send(call);
    connection.awaitReply();
    std::printf("%.3f\n", microsecondsSince(start));
}

void hold(const char* path, std::size_t count) {
    const auto connections = openAll(path, count, callOf("HelperVersion", "", ""));
    std::puts("held");
    std::fflush(stdout);
    char byte = 0;
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
}

std::size_t numberOf(const char* text) {
    return std::strtoul(text, nullptr, 10);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view work = argc > 2 ? argv[2] : "";
    if (work == "rate" && argc == 5) {
        rate(argv[1], numberOf(argv[3]), numberOf(argv[4]));
    } else if (work == "connect" && argc == 4) {
        connect(argv[1], numberOf(argv[3]));
    } else if (work == "first" && argc == 3) {
        first(argv[1]);
    } else if (work == "apply" && argc == 4) {
        apply(argv[1], argv[3]);
    } else if (work == "hold" && argc == 4) {
        hold(argv[1], numberOf(argv[3]));
    } else {
        std::fputs("usage: service_caller SOCKET WORK…\n", stderr);
        return EXIT_FAILURE;
    }
}
