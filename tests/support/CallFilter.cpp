// SPDX-License-Identifier: MIT

#include "tests/support/CallFilter.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <vector>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/SystemCalls.h"

namespace tarnvale::test {
namespace {

using support::uninterrupted;

/// One action for the calls of these numbers, another for the rest.
int install(
    std::span<const long> numbers, std::uint32_t theirs, std::uint32_t others, unsigned flags) {
    std::vector<sock_filter> filter = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    auto distance = numbers.size();
    for (const long number : numbers) {
        const auto toTheirs = static_cast<std::uint8_t>(distance--);
        filter.push_back(
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(number), toTheirs, 0));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, others));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, theirs));
    const sock_fprog installed{
        .len = static_cast<unsigned short>(filter.size()), .filter = filter.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
        return -1;
    }
    return static_cast<int>(::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, flags, &installed));
}

}  // namespace

int filterCall(long number, std::uint32_t action, unsigned flags) {
    return install({&number, 1}, action, SECCOMP_RET_ALLOW, flags);
}

int filterCallsBut(std::span<const long> numbers, std::uint32_t action, unsigned flags) {
    return install(numbers, SECCOMP_RET_ALLOW, action, flags);
}

void answerCalls(int listener, const std::function<CallAnswer(const AskedCall& call)>& answer) {
    while (true) {
        pollfd asked{.fd = listener, .events = POLLIN, .revents = 0};
        uninterrupted([&] { return ::poll(&asked, 1, -1); });
        if ((asked.revents & POLLIN) == 0) {
            return;
        }
        seccomp_notif question{};
        if (::ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &question) != 0) {
            continue;  // whoever asked was interrupted
        }
        AskedCall call{
            .thread = static_cast<pid_t>(question.pid),
            .number = question.data.nr,
            .arguments = {}};
        std::ranges::copy(question.data.args, call.arguments.begin());
        const auto given = answer(call);

        seccomp_notif_resp reply{};
        reply.id = question.id;
        reply.error = -given.error;
        reply.val = given.result.value_or(0);
        const bool goesOn = given.error == 0 && !given.result;
        reply.flags = goesOn ? SECCOMP_USER_NOTIF_FLAG_CONTINUE : 0;
        ::ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &reply);
    }
}

}  // namespace tarnvale::test
