// SPDX-License-Identifier: MIT
//
// The shipped helper as a service inside this process's private root, and signed clients that speak
// to it over its socket. Everything is real: signatures, users, the socket, the log.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <sys/types.h>

#include "support/UniqueFd.h"
#include "tests/support/HelperFiles.h"
#include "tests/support/Program.h"
#include "tests/support/SigningLab.h"
#include "tests/support/SocketPeer.h"

namespace tarnvale::test {

/// The programs as they were built.
extern const char* const helperProgram;
extern const char* const clientProgram;
extern const char* const pfctlProgram;

inline constexpr const char* servicePath = "/run/com.brackwen.tarnvale.adminhelper.socket";
inline constexpr const char* rootsPath = "/etc/tarnvale/code-signing-roots.pem";

/// The identifiers that the helper admits.
inline constexpr const char* applicationIdentifier = "com.brackwen.tarnvale";
inline constexpr const char* serviceProcessIdentifier = "com.brackwen.tarnvale.service";

/// The version that the build was given, or "7".
std::string helperVersion();

/// What the log says once the service listens.
std::string listeningMessage();

/// The users of this machine.
inline constexpr uid_t rootUser = 0;
inline constexpr uid_t administrator = 501;  ///< "ada", a member of group 80
inline constexpr uid_t firstUser = 502;      ///< "bob"
inline constexpr uid_t secondUser = 503;     ///< "eve"

/// The certificates, programs and users that a test needs.
class ServiceLab {
    int clients_ = 0;  ///< signed so far; initialised before `client`

public:
    /// Trusts `development`, signs a client with it, makes the users, leaves nobody at the console
    /// and puts the project's pfctl into /sbin.
    ServiceLab();

    /// The maker's team.
    const Chain development = Chain::development();
    const Chain developerID = Chain::developerID();

    /// The path of the client that is signed by `development` as the application.
    const std::string client;

    /// Writes the file of trusted roots.
    static void trust(const std::vector<const Chain*>& chains);

    /// A new file: the program, signed. Returns `path`.
    static std::string signCopy(
        const std::string& program,
        std::string_view identifier,
        const Chain& chain,
        const std::string& path);

    /// The helper in its place in the application, beside a command-line tool, in an otherwise new
    /// /usr/local. Returns its path.
    static std::string installedHelper();

    /// Like `signCopy`, for the client program, at a path of its own in /tmp.
    std::string signedClient(std::string_view identifier, const Chain& chain);

    /// Sets who is at the console, as systemd-logind would; nobody without a user.
    static void setConsoleUser(std::optional<uid_t> uid);
    static void showLoginWindow();
};

/// The rules of the helper's anchor as pf lists them, without their counters.
std::string listedRules();

/// Takes these rules out of force, as anybody with the right to may. Throws `std::runtime_error`.
void flushRules();

/// The helper at work.
class RunningHelper {
public:
    struct Start {
        std::string program = helperProgram;
        /// Passed to it as systemd passes a socket; without one it makes its own.
        int listeningSocket = -1;
        std::vector<std::string> environment{};  ///< "NAME=value", besides the test's own
    };

    /// Starts it and waits until it listens. Throws `std::runtime_error` when it ends instead.
    RunningHelper();
    explicit RunningHelper(const Start& start);
    RunningHelper(const RunningHelper&) = delete;
    RunningHelper& operator=(const RunningHelper&) = delete;

    ~RunningHelper() = default;  ///< kills it if it still runs

    Program& program() { return program_; }
    pid_t pid() const { return program_.pid(); }
    bool running() { return program_.running(); }

    /// What it has written to its standard output and error so far.
    std::string written() const { return program_.output() + program_.error(); }

    /// Sends it a signal.
    void signal(int number) const;

    /// Kills it and waits for its end.
    void kill();

private:
    RunningHelper(const Start& start, std::size_t listeningBefore);

    Program program_;
};

/// The command line of a shell that sets these variables and becomes the program, as what systemd
/// forks does. In "LISTEN_PID=$$", `$$` is the shell's process ID, which the program keeps.
std::vector<std::string> activationCommand(
    const std::string& program, const std::vector<std::string>& variables);

/// A connection to the service from the test's own process; none when nobody listens.
support::UniqueFd connectToService();

/// The optional texts of a reply, each its text or "nil"; {"closed"} when the service has closed
/// the connection; {"error", name} for an error of D-Bus.
using Texts = std::vector<std::string>;

/// A client program that runs as a user, with a connection of its own.
class ServiceClient {
public:
    /// `pid`, where given, is the process ID that it gets.
    explicit ServiceClient(
        const std::string& program, uid_t uid = rootUser, std::optional<pid_t> pid = std::nullopt);

    pid_t pid() const { return process_.pid(); }

    /// Whether the service lets it connect. The first call connects by itself.
    bool connects();

    /// A further connection of the client's for the test to speak on; nothing has been said on it
    /// yet. As long as the client lives, the service takes it for the client's.
    support::UniqueFd lend();

    /// Makes the call and waits for its reply. The words are the values of the types' codes:
    /// texts, integers in decimal, "true" or "false", for "ay" the bytes.
    Texts call(
        const std::string& method, const std::string& types = "", const Texts& arguments = {});

    /// The two halves of a call. Any number of calls may be begun before the first reply.
    void begin(
        const std::string& method, const std::string& types = "", const Texts& arguments = {});
    Texts reply();

    /// Tells the program anything (tests/client/main.cpp) and waits for its answer.
    Texts tell(const Texts& sentence);

    void signal(int number) const;

    /// Kills it and waits for its end.
    void kill() { process_.end(); }

private:
    SocketPeer process_;
};

}  // namespace tarnvale::test
