// SPDX-License-Identifier: Apache-2.0
// The calls on descriptors, under libc's names. Waits for a descriptor are the scheduler's; whoever
// waits looks again when this process closes or writes one. The pool of fence pipes is told of
// every close, and of every call that asks the kernel about a descriptor.
//
// A read waits as a fiber where the data can come only from this process: from a pipe of which it
// has the write end, an eventfd, a socket that it made a pair of. Any other read is done as it is
// and takes no virtual time.
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <cstdarg>
#include <filesystem>

#include "tv/clock/FencePipe.h"
#include "tv/clock/Interpose.h"

using korvane::tv::endOfWaitNs;
using korvane::tv::gScheduler;
using korvane::tv::kNever;
using korvane::tv::noteClosed;
using korvane::tv::noteKernelAsked;
using korvane::tv::realTime;
namespace real = korvane::tv::real;

namespace {

constexpr int64_t kNsPerMs = 1'000'000;

int64_t endOfWaitMs(int ms) {
    return ms < 0 ? kNever : gScheduler->after(ms * kNsPerMs);
}

/// The target of a link in /proc/self/fd; the two ends of a pipe have the same.
std::string target(const std::filesystem::path& link) {
    std::error_code closedMeanwhile;
    return std::filesystem::read_symlink(link, closedMeanwhile).string();
}

/// Whether this process has a descriptor of the same pipe that is open in another mode than this.
bool hasOtherEndHere(int pipe, int mode) {
    const std::filesystem::path descriptors("/proc/self/fd");
    const std::string wanted = target(descriptors / std::to_string(pipe));
    for (const auto& entry : std::filesystem::directory_iterator(descriptors)) {
        const int flags = fcntl(std::stoi(entry.path().filename()), F_GETFL);
        if (flags >= 0 && (flags & O_ACCMODE) != mode && target(entry.path()) == wanted) {
            return true;
        }
    }
    return false;
}

bool comesFromHere(int descriptor) {
    struct stat file {};
    fstat(descriptor, &file);
    if (S_ISFIFO(file.st_mode)) {
        return hasOtherEndHere(descriptor, O_RDONLY);
    }
    if (S_ISSOCK(file.st_mode)) {
        ucred peer{};
        socklen_t bytes = sizeof(peer);
        return getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &bytes) == 0 &&
               peer.pid == getpid();
    }
    return target("/proc/self/fd/" + std::to_string(descriptor)) == "anon_inode:[eventfd]";
}

int readyToRead(int descriptor) {
    pollfd poller{descriptor, POLLIN, 0};
    return real::poll::call(&poller, 1, 0);
}

/// Whether a read waits for what another fiber is to write.
bool waitsForFiber(int descriptor, int flags) {
    return (flags & MSG_DONTWAIT) == 0 && readyToRead(descriptor) == 0 &&
           (fcntl(descriptor, F_GETFL) & O_NONBLOCK) == 0 && comesFromHere(descriptor);
}

/// Before a call that reads, which would otherwise block every fiber.
void waitToRead(int descriptor, int flags = 0) {
    if (realTime()) {
        return;
    }
    noteKernelAsked(descriptor);
    const int keptErrno = errno;
    if (waitsForFiber(descriptor, flags)) {
        gScheduler->lookUntil(descriptor, kNever, [=] { return readyToRead(descriptor); });
    }
    errno = keptErrno;
}

/// Before a read that is not taken: it ends the process only where it would block every fiber.
void refuseToWait(const char* call, int descriptor, bool dontWait) {
    if (realTime()) {
        return;
    }
    noteKernelAsked(descriptor);
    const int keptErrno = errno;
    if (waitsForFiber(descriptor, dontWait ? MSG_DONTWAIT : 0)) {
        gScheduler->failNotTaken(call);
    }
    errno = keptErrno;
}

/// Whether a write would block for good: into a pipe without room, of which this process has the
/// read end.
bool fillsOwnPipe(int descriptor, size_t bytes) {
    struct stat file {};
    int used = 0;
    const int flags = fcntl(descriptor, F_GETFL);
    if (fstat(descriptor, &file) != 0 || !S_ISFIFO(file.st_mode) || (flags & O_NONBLOCK) != 0 ||
        ioctl(descriptor, FIONREAD, &used) != 0) {
        return false;
    }
    const auto room = static_cast<size_t>(fcntl(descriptor, F_GETPIPE_SZ) - used);
    return bytes > room && hasOtherEndHere(descriptor, O_WRONLY);
}

/// Waits in `select` as `poll` does. The sets are copied, because each check overwrites them.
int selectUntil(int64_t deadlineNs, int end, fd_set* readable, fd_set* writable,
                fd_set* exceptional) {
    fd_set* const sets[] = {readable, writable, exceptional};
    fd_set wanted[3];
    for (int i = 0; i < 3; ++i) {
        FD_ZERO(&wanted[i]);
        if (sets[i] != nullptr) {
            wanted[i] = *sets[i];
        }
    }
    for (int descriptor = 0; descriptor < end; ++descriptor) {
        if (FD_ISSET(descriptor, &wanted[0])) {
            noteKernelAsked(descriptor);
        }
    }
    return gScheduler->lookUntil(end - 1, deadlineNs, [&] {
        for (int i = 0; i < 3; ++i) {
            if (sets[i] != nullptr) {
                *sets[i] = wanted[i];
            }
        }
        timeval atOnce{};
        return real::select::call(end, readable, writable, exceptional, &atOnce);
    });
}

int waitForEvents(int epoll, epoll_event* events, int most, int64_t deadlineNs) {
    return gScheduler->lookUntil(epoll, deadlineNs,
                                 [=] { return real::epoll_wait::call(epoll, events, most, 0); });
}

/// A duplicate takes over a number; a descriptor that has it is closed.
void noteReplaced(int descriptor, int target) {
    noteKernelAsked(descriptor);
    noteKernelAsked(target);
    noteClosed(target);
    gScheduler->descriptorsChanged();
}

int realFcntl(int descriptor, int command, void* argument) {
    static std::atomic<int (*)(int, int, ...)> found{nullptr};
    return korvane::tv::nextVariadic(found, "fcntl")(descriptor, command, argument);
}

}  // namespace

// ---- waits for several descriptors; nothing waits for signals in virtual time, so that a mask of
// signals makes no difference ----

KORVANE_INTERPOSE int poll(pollfd* descriptors, nfds_t count, int timeoutMs) {
    return realTime() ? real::poll::call(descriptors, count, timeoutMs)
                      : gScheduler->poll(descriptors, count, endOfWaitMs(timeoutMs));
}

KORVANE_INTERPOSE int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout,
                            const sigset_t* signals) {
    return realTime() ? real::ppoll::call(descriptors, count, timeout, signals)
                      : gScheduler->poll(descriptors, count, endOfWaitNs(timeout));
}

KORVANE_INTERPOSE int select(int end, fd_set* readable, fd_set* writable, fd_set* exceptional,
                             timeval* timeout) {
    if (realTime()) {
        return real::select::call(end, readable, writable, exceptional, timeout);
    }
    const timespec length =
        timeout != nullptr ? timespec{timeout->tv_sec, timeout->tv_usec * 1000} : timespec{};
    return selectUntil(endOfWaitNs(timeout != nullptr ? &length : nullptr), end, readable, writable,
                       exceptional);
}

KORVANE_INTERPOSE int pselect(int end, fd_set* readable, fd_set* writable, fd_set* exceptional,
                              const timespec* timeout, const sigset_t* signals) {
    return realTime() ? real::pselect::call(end, readable, writable, exceptional, timeout, signals)
                      : selectUntil(endOfWaitNs(timeout), end, readable, writable, exceptional);
}

KORVANE_INTERPOSE int epoll_ctl(int epoll, int operation, int descriptor,
                                epoll_event* event) noexcept {
    if (!realTime()) {
        noteKernelAsked(descriptor);
    }
    return real::epoll_ctl::call(epoll, operation, descriptor, event);
}

KORVANE_INTERPOSE int epoll_wait(int epoll, epoll_event* events, int most, int timeoutMs) {
    return realTime() ? real::epoll_wait::call(epoll, events, most, timeoutMs)
                      : waitForEvents(epoll, events, most, endOfWaitMs(timeoutMs));
}

KORVANE_INTERPOSE int epoll_pwait(int epoll, epoll_event* events, int most, int timeoutMs,
                                  const sigset_t* signals) {
    return realTime() ? real::epoll_pwait::call(epoll, events, most, timeoutMs, signals)
                      : waitForEvents(epoll, events, most, endOfWaitMs(timeoutMs));
}

KORVANE_INTERPOSE int epoll_pwait2(int epoll, epoll_event* events, int most,
                                   const timespec* timeout, const sigset_t* signals) {
    return realTime() ? real::epoll_pwait2::call(epoll, events, most, timeout, signals)
                      : waitForEvents(epoll, events, most, endOfWaitNs(timeout));
}

// ---- reads ----

// NOLINTBEGIN(bugprone-macro-parentheses): parameters cannot stand in parentheses here.
#define KORVANE_READS(result, function, parameters, arguments, ...) \
    KORVANE_INTERPOSE result function parameters {                  \
        waitToRead(__VA_ARGS__);                                    \
        return real::function::call arguments;                      \
    }
#define KORVANE_WRITES(result, function, parameters, arguments) \
    KORVANE_INTERPOSE result function parameters {              \
        const auto written = real::function::call arguments;    \
        if (!realTime()) {                                      \
            gScheduler->descriptorsReady();                     \
        }                                                       \
        return written;                                         \
    }
// NOLINTEND(bugprone-macro-parentheses)

KORVANE_READS(ssize_t, read, (int descriptor, void* data, size_t bytes), (descriptor, data, bytes),
              descriptor)
KORVANE_READS(ssize_t, readv, (int descriptor, const iovec* parts, int count),
              (descriptor, parts, count), descriptor)
KORVANE_READS(int, eventfd_read, (int descriptor, eventfd_t* value), (descriptor, value),
              descriptor)
KORVANE_READS(ssize_t, recv, (int descriptor, void* data, size_t bytes, int flags),
              (descriptor, data, bytes, flags), descriptor, flags)
KORVANE_READS(ssize_t, recvfrom,
              (int descriptor, void* data, size_t bytes, int flags, sockaddr* from,
               socklen_t* fromBytes),
              (descriptor, data, bytes, flags, from, fromBytes), descriptor, flags)
KORVANE_READS(ssize_t, recvmsg, (int descriptor, msghdr* message, int flags),
              (descriptor, message, flags), descriptor, flags)
KORVANE_READS(int, accept, (int descriptor, sockaddr* from, socklen_t* fromBytes),
              (descriptor, from, fromBytes), descriptor)
KORVANE_READS(int, accept4, (int descriptor, sockaddr* from, socklen_t* fromBytes, int flags),
              (descriptor, from, fromBytes, flags), descriptor)

// NOLINTBEGIN(bugprone-macro-parentheses): parameters cannot stand in parentheses here.
/// Reads and writes, or reads several messages; `dontWait` says whether the call's flags do.
#define KORVANE_TRANSFERS(result, function, parameters, arguments, descriptor, dontWait) \
    KORVANE_INTERPOSE result function parameters {                                       \
        refuseToWait(#function, descriptor, dontWait);                                   \
        const auto moved = real::function::call arguments;                               \
        if (!realTime()) {                                                               \
            gScheduler->descriptorsReady();                                              \
        }                                                                                \
        return moved;                                                                    \
    }
// NOLINTEND(bugprone-macro-parentheses)

KORVANE_TRANSFERS(int, recvmmsg,
                  (int descriptor, mmsghdr* messages, unsigned int count, int flags,
                   timespec* timeout),
                  (descriptor, messages, count, flags, timeout), descriptor,
                  (flags & MSG_DONTWAIT) != 0)
KORVANE_TRANSFERS(ssize_t, splice,
                  (int from, off64_t* fromOffset, int to, off64_t* toOffset, size_t bytes,
                   unsigned int flags),
                  (from, fromOffset, to, toOffset, bytes, flags), from,
                  (flags & SPLICE_F_NONBLOCK) != 0)
KORVANE_TRANSFERS(ssize_t, tee, (int from, int to, size_t bytes, unsigned int flags),
                  (from, to, bytes, flags), from, (flags & SPLICE_F_NONBLOCK) != 0)

// ---- writes, and all else that makes a descriptor ready ----

KORVANE_INTERPOSE ssize_t write(int descriptor, const void* data, size_t bytes) {
    if (!realTime() && fillsOwnPipe(descriptor, bytes)) {
        gScheduler->failNotTaken("write into a full pipe");
    }
    const ssize_t written = real::write::call(descriptor, data, bytes);
    if (!realTime()) {
        gScheduler->descriptorsReady();
    }
    return written;
}

KORVANE_WRITES(ssize_t, writev, (int descriptor, const iovec* parts, int count),
               (descriptor, parts, count))
KORVANE_WRITES(int, eventfd_write, (int descriptor, eventfd_t value), (descriptor, value))
KORVANE_WRITES(ssize_t, send, (int descriptor, const void* data, size_t bytes, int flags),
               (descriptor, data, bytes, flags))
KORVANE_WRITES(ssize_t, sendto,
               (int descriptor, const void* data, size_t bytes, int flags, const sockaddr* to,
                socklen_t toBytes),
               (descriptor, data, bytes, flags, to, toBytes))
KORVANE_WRITES(ssize_t, sendmsg, (int descriptor, const msghdr* message, int flags),
               (descriptor, message, flags))
KORVANE_WRITES(int, sendmmsg, (int descriptor, mmsghdr* messages, unsigned int count, int flags),
               (descriptor, messages, count, flags))
KORVANE_WRITES(int, connect, (int descriptor, const sockaddr* to, socklen_t toBytes),
               (descriptor, to, toBytes))
KORVANE_WRITES(int, shutdown, (int descriptor, int how) noexcept, (descriptor, how))

KORVANE_INTERPOSE int close(int descriptor) {
    const int result = real::close::call(descriptor);
    if (!realTime()) {
        noteClosed(descriptor);
        gScheduler->descriptorsChanged();
        if (result != 0 && errno == EBADF) {
            gScheduler->closedAgain(descriptor);
        }
    }
    return result;
}

// ---- duplicates ----

KORVANE_INTERPOSE int dup(int descriptor) noexcept {
    if (!realTime()) {
        noteKernelAsked(descriptor);
    }
    return real::dup::call(descriptor);
}

KORVANE_INTERPOSE int dup2(int descriptor, int target) noexcept {
    if (!realTime()) {
        noteReplaced(descriptor, target);
    }
    return real::dup2::call(descriptor, target);
}

KORVANE_INTERPOSE int dup3(int descriptor, int target, int flags) noexcept {
    if (!realTime()) {
        noteReplaced(descriptor, target);
    }
    return real::dup3::call(descriptor, target, flags);
}

KORVANE_INTERPOSE int fcntl(int descriptor, int command, ...) {
    va_list list;
    va_start(list, command);
    void* const argument = va_arg(list, void*);
    va_end(list);
    if (!realTime() && (command == F_DUPFD || command == F_DUPFD_CLOEXEC)) {
        noteKernelAsked(descriptor);
    }
    // Another fiber may hold it. Locks of a process do not hold up its own threads.
    if (!realTime() && command == F_OFD_SETLKW) {
        const int result = realFcntl(descriptor, F_OFD_SETLK, argument);
        if (result != 0 && errno == EAGAIN) {
            gScheduler->failNotTaken("fcntl that waits for a lock");
        }
        return result;
    }
    return realFcntl(descriptor, command, argument);
}

/// What callers built with 64-bit file offsets call it.
KORVANE_INTERPOSE int fcntl64(int descriptor, int command, ...) __attribute__((alias("fcntl")));

// ---- what programs built with _FORTIFY_SOURCE call instead; it has compared the size by then ----

// NOLINTBEGIN(bugprone-reserved-identifier)
KORVANE_INTERPOSE int __poll_chk(pollfd* descriptors, nfds_t count, int timeoutMs, size_t room) {
    return realTime() ? real::__poll_chk::call(descriptors, count, timeoutMs, room)
                      : gScheduler->poll(descriptors, count, endOfWaitMs(timeoutMs));
}

KORVANE_INTERPOSE int __ppoll_chk(pollfd* descriptors, nfds_t count, const timespec* timeout,
                                  const __sigset_t* signals, size_t room) {
    return realTime() ? real::__ppoll_chk::call(descriptors, count, timeout, signals, room)
                      : gScheduler->poll(descriptors, count, endOfWaitNs(timeout));
}

KORVANE_READS(ssize_t, __read_chk, (int descriptor, void* data, size_t bytes, size_t room),
              (descriptor, data, bytes, room), descriptor)
KORVANE_READS(ssize_t, __recv_chk,
              (int descriptor, void* data, size_t bytes, size_t room, int flags),
              (descriptor, data, bytes, room, flags), descriptor, flags)
KORVANE_READS(ssize_t, __recvfrom_chk,
              (int descriptor, void* data, size_t bytes, size_t room, int flags, sockaddr* from,
               socklen_t* fromBytes),
              (descriptor, data, bytes, room, flags, from, fromBytes), descriptor, flags)
// NOLINTEND(bugprone-reserved-identifier)
