// SPDX-License-Identifier: MIT
//
// Stands between a program, with all that it starts, and the kernel: lists the system calls that
// they make, and does something at one of them.

#pragma once

#include <compare>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/types.h>

#include "support/Mutex.h"
#include "tests/support/CallFilter.h"
#include "tests/support/Program.h"

namespace tarnvale::test {

/// One system call of a run, in a form that another run of the same has too: threads may take
/// turns in another order there.
struct WatchedPoint {
    int process = 0;  ///< 0 for the program, 1 for the first that it started meanwhile, and so on
    long number = 0;  ///< `SYS_…`
    int occurrence = 0;  ///< of that number in that process, from 1

    auto operator<=>(const WatchedPoint&) const = default;
};

struct ListedCall {
    WatchedPoint point{};
    AskedCall call{};
};

/// Whether a deed makes sense at a call.
using CallCondition = std::function<bool(const ListedCall& call)>;

/// What happens in place of a call.
struct Deed {
    enum class Kind {
        fail,         ///< with the error
        shorten,      ///< it is made, but for half of its bytes
        killProcess,  ///< that makes it
        killAll,      ///< the program with all that it started
    };
    Kind kind = Kind::fail;
    int error = 0;
};

/// Calls that change only what the process itself sees, such as its memory, its signals and its
/// sleep, aren't listed, and nothing is done at them. Safe from any thread.
class CallWatch {
public:
    CallWatch() = default;
    CallWatch(const CallWatch&) = delete;
    CallWatch& operator=(const CallWatch&) = delete;

    /// The program and what it started must have ended, or end soon.
    ~CallWatch();

    /// Starts a program, once the one before has ended with all that it started. Throws
    /// `std::system_error`.
    std::unique_ptr<Program> start(const std::vector<std::string>& commandLine);

    /// From here on lists the calls; what the program starts from here on is counted.
    void beginList();

    /// Ends the list.
    std::vector<ListedCall> list();

    /// From here on waits for that call, to do this at it, unless it is of another kind in this
    /// run.
    void await(const WatchedPoint& point, const Deed& deed, const CallCondition& fits);

    /// From here on calls aren't counted.
    void pause();

    /// Waits no more. Whether the deed was done.
    bool end();

    /// Waits until the program has ended, with all that it started.
    void awaitEnd();

private:
    CallAnswer answer(const AskedCall& call);
    CallAnswer doAt(const AskedCall& call, pid_t process) REQUIRES(mutex_);
    CallAnswer kill(pid_t process) REQUIRES(mutex_);
    void countAfresh() REQUIRES(mutex_);
    pid_t processOf(pid_t thread) REQUIRES(mutex_);

    support::Mutex mutex_;
    std::map<pid_t, pid_t> processes_ GUARDED_BY(mutex_);  ///< by thread
    std::map<pid_t, int> order_ GUARDED_BY(mutex_);        ///< of the processes
    std::map<std::pair<int, long>, int> made_ GUARDED_BY(mutex_);
    std::vector<ListedCall> listed_ GUARDED_BY(mutex_);
    std::vector<pid_t> killed_ GUARDED_BY(mutex_);
    WatchedPoint awaited_ GUARDED_BY(mutex_);
    std::optional<Deed> deed_ GUARDED_BY(mutex_);
    CallCondition fits_ GUARDED_BY(mutex_);
    pid_t program_ GUARDED_BY(mutex_) = -1;
    bool isItself_ GUARDED_BY(mutex_) = false;  ///< not what is to become the program
    bool isCounting_ GUARDED_BY(mutex_) = false;
    bool wasDone_ GUARDED_BY(mutex_) = false;
    std::thread answering_;
};

}  // namespace tarnvale::test
