// SPDX-License-Identifier: MIT
//
// service-client [UID]: a client of the service that a test signs and tells what to do. It becomes
// that user, then takes sentences (Conversation.h) from its standard input, a socket, and answers
// each there:
//
//     connect                       connected, or closed when it is turned away or nobody listens
//     call METHOD TYPES ARGUMENT…   the reply's texts, "nil" for an absent one; or closed; or error
//                                   and the D-Bus error's name
//     await-close                   closed, once the service has closed the connection
//     connect-raw                   connected; nothing has been said yet
//     send-raw [BYTES]              sends the bytes, or a RemoveFirewall call, past sd-bus; then
//                                   answered or closed
//     lend                          connects like connect-raw, but sends the connection to the
//                                   test with one byte instead of a sentence
//     fork                          forked; a child goes on, and it waits to be killed
//     exec PROGRAM                  becomes the program, with the connection as descriptor 3

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <grp.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "support/Decimal.h"
#include "tests/support/Conversation.h"
#include "tests/support/RawPeer.h"
#include "tests/support/UnixSockets.h"

#if defined(TARNVALE_THREAD_SANITIZER)
/// libsystemd draws the keys of its hash tables into shared memory without a lock and copies them.
// NOLINTNEXTLINE(bugprone-reserved-identifier,readability-identifier-naming): the sanitizer's name
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libsystemd.so\n";
}
#endif

namespace tarnvale::test {
namespace {

constexpr const char* socketPath = "/run/com.brackwen.tarnvale.adminhelper.socket";
constexpr const char* objectPath = "/com/brackwen/tarnvale/adminhelper";
constexpr const char* interfaceName = "com.brackwen.tarnvale.adminhelper";
constexpr std::uint64_t replyTimeout = std::uint64_t{300} * 1'000'000;  // microseconds

int require(int result, const char* step) {
    if (result < 0) {
        throw std::system_error(-result, std::generic_category(), step);
    }
    return result;
}

bool isClosed(int result) {
    return result == -ECONNRESET || result == -ENOTCONN || result == -EPIPE || result == -ESHUTDOWN;
}

struct Unref {
    void operator()(sd_bus* bus) const { ::sd_bus_close_unref(bus); }
    void operator()(sd_bus_message* message) const { ::sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, Unref>;

/// A RemoveFirewall call, its serial beyond those that sd-bus has used.
std::string rawCall() {
    return RawMessage{.member = "RemoveFirewall", .serial = 1'000'000}.bytes();
}

class Client {
public:
    void use(int inheritedConnection) { connection_ = inheritedConnection; }

    Words connect() {
        sd_bus* made = nullptr;
        require(::sd_bus_new(&made), "sd_bus_new");
        bus_.reset(made);
        require(
            ::sd_bus_set_address(made, (std::string("unix:path=") + socketPath).c_str()),
            "sd_bus_set_address");
        int result = ::sd_bus_start(made);
        while (result >= 0 && ::sd_bus_is_ready(made) == 0) {
            result = ::sd_bus_process(made, nullptr);
            if (result == 0) {
                result = ::sd_bus_wait(made, replyTimeout);
            }
        }
        if (isClosed(result) || result == -ECONNREFUSED) {
            return {"closed"};
        }
        require(result, "connect");
        connection_ = require(::sd_bus_get_fd(made), "sd_bus_get_fd");
        return {"connected"};
    }

    Words connectRaw() {
        connection_ = connectTo(socketPath).release();
        require(connection_ >= 0 ? 0 : -errno, "connect");
        return {"connected"};
    }

    Words call(const Words& words) {
        if (!bus_ && connect() != Words{"connected"}) {
            return {"closed"};
        }
        sd_bus_message* made = nullptr;
        int result = ::sd_bus_message_new_method_call(
            bus_.get(), &made, nullptr, objectPath, interfaceName, words.at(1).c_str());
        if (isClosed(result)) {
            return {"closed"};
        }
        require(result, "sd_bus_message_new_method_call");
        const Message message(made);
        append(made, words);

        sd_bus_error error{};
        sd_bus_message* answer = nullptr;
        result = ::sd_bus_call(bus_.get(), made, replyTimeout, &error, &answer);
        const Message reply(answer);
        const std::string name = error.name == nullptr ? "" : error.name;
        ::sd_bus_error_free(&error);
        if (isClosed(result)) {
            return {"closed"};
        }
        return result < 0 ? Words{"error", name} : texts(answer);
    }

    Words awaitClose() {
        int result = 0;
        while (result >= 0) {
            result = ::sd_bus_process(bus_.get(), nullptr);
            if (result == 0) {
                result = ::sd_bus_wait(bus_.get(), replyTimeout);
            }
        }
        return {"closed"};
    }

    Words sendRaw(const Words& words) const {
        const std::string bytes = words.size() > 1 ? words[1] : rawCall();
        if (::send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
            return {"closed"};
        }
        // sd-bus has made the socket non-blocking.
        ::fcntl(connection_, F_SETFL, ::fcntl(connection_, F_GETFL) & ~O_NONBLOCK);
        std::array<char, 1024> answer{};
        const auto size = ::recv(connection_, answer.data(), answer.size(), 0);
        return {size > 0 ? "answered" : "closed"};
    }

    void lend() {
        connectRaw();
        require(sendDescriptor(STDOUT_FILENO, "x", connection_) ? 0 : -errno, "sendmsg");
        ::close(std::exchange(connection_, -1));
    }

    [[noreturn]] void become(const std::string& program) const {
        constexpr int passed = 3;
        require(::dup2(connection_, passed), "dup2");
        if (connection_ == passed) {
            ::fcntl(passed, F_SETFD, 0);
        }
        ::execl(program.c_str(), program.c_str(), "--inherited", nullptr);
        throw std::system_error(errno, std::generic_category(), program);
    }

private:
    static void append(sd_bus_message* message, const Words& words) {
        const std::string_view types = words.at(2);
        if (types == "ay") {
            const std::string& bytes = words.at(3);
            require(
                ::sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()), "append");
            return;
        }
        for (std::size_t index = 0; index < types.size(); ++index) {
            const std::string& word = words.at(3 + index);
            const char type = types[index];
            const std::int64_t integer = support::parseDecimal(word).value_or(0);
            const int boolean = word == "true" ? 1 : 0;
            const void* const value = type == 's'   ? static_cast<const void*>(word.c_str())
                                      : type == 'b' ? static_cast<const void*>(&boolean)
                                                    : &integer;
            require(::sd_bus_message_append_basic(message, type, value), "append");
        }
    }

    static Words texts(sd_bus_message* reply) {
        Words words;
        while (::sd_bus_message_enter_container(reply, SD_BUS_TYPE_ARRAY, "s") > 0) {
            const char* text = "nil";
            require(::sd_bus_message_read(reply, "s", &text), "read");
            words.emplace_back(text);
            ::sd_bus_message_exit_container(reply);
        }
        return words;
    }

    std::unique_ptr<sd_bus, Unref> bus_;
    int connection_ = -1;
};

void become(uid_t uid) {
    constexpr gid_t staff = 20;
    if (::setgroups(0, nullptr) != 0 || ::setresgid(staff, staff, staff) != 0 ||
        ::setresuid(uid, uid, uid) != 0) {
        throw std::system_error(errno, std::generic_category(), "become another user");
    }
}

/// Returns in a child; the caller waits to be killed.
void leaveToChild() {
    const pid_t child = ::fork();
    require(child < 0 ? -errno : 0, "fork");
    if (child > 0) {
        while (true) {
            ::pause();
        }
    }
}

void serve(Client& client) {
    while (const auto words = hear(STDIN_FILENO)) {
        const std::string& verb = words->at(0);
        if (verb == "connect") {
            say(STDOUT_FILENO, client.connect());
        } else if (verb == "call") {
            say(STDOUT_FILENO, client.call(*words));
        } else if (verb == "await-close") {
            say(STDOUT_FILENO, client.awaitClose());
        } else if (verb == "send-raw") {
            say(STDOUT_FILENO, client.sendRaw(*words));
        } else if (verb == "connect-raw") {
            say(STDOUT_FILENO, client.connectRaw());
        } else if (verb == "lend") {
            client.lend();
        } else if (verb == "fork") {
            leaveToChild();
            say(STDOUT_FILENO, {"forked"});
        } else if (verb == "exec") {
            client.become(words->at(1));
        } else {
            throw std::runtime_error("unknown verb " + verb);
        }
    }
}

}  // namespace
}  // namespace tarnvale::test

int main(int argc, char** argv) {
    try {
        tarnvale::test::Client client;
        if (argc > 1 && std::string_view(argv[1]) == "--inherited") {
            client.use(3);
            tarnvale::test::say(STDOUT_FILENO, {"replaced"});
        } else if (argc > 1) {
            const auto uid = tarnvale::support::parseDecimal(argv[1]);
            if (!uid) {
                std::fputs("usage: service-client [UID]\n", stderr);
                return 2;
            }
            if (*uid != 0) {
                tarnvale::test::become(static_cast<uid_t>(*uid));
            }
        }
        tarnvale::test::serve(client);
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "service-client: %s\n", error.what());
        ::_exit(EXIT_FAILURE);
    }
}
