// A worker is two processes of one program: a keeper and, its child, the worker itself.
//
//     host ══ control ══ keeper
//       ╚════ frames ═══ worker ─ what scripts start
//
// The keeper is nobody's child: the process between it and the host ends at once. So the host may
// ignore SIGCHLD or wait for any child. The keeper tells how the worker ended, ends the worker and
// all its descendants when the host is gone (the control connection breaks) or wants that, and is
// itself nothing that a script could see go: descendants become its children when they lose their
// parents.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include "pgm/pgm_python/worker_process.h"

namespace {

typedef std::chrono::steady_clock CLOCK;

// What hosts call a worker with, before the numbers of the two connections and the locale.
constexpr char worker_mark[] = "--worker-of-a-host-1";
constexpr int control_descriptor = 3;
constexpr int frames_descriptor = 4;

// How long a program may take to show that it is a worker, and a keeper to end what is to end.
constexpr std::chrono::seconds greeting_limit(60);
constexpr std::chrono::milliseconds ending_limit(5000);

// The same for one that has not shown itself: no script runs in it.
constexpr std::chrono::milliseconds silent_ending_limit(500);

// What a keeper tells.
struct NOTE {
    enum KIND : std::uint32_t { greeting = 0x6B656570, ended = 0x656E6465 };
    std::uint32_t kind = 0;
    std::int32_t status = 0;  // ended: as waitpid tells it
};

// What a host tells.
constexpr char let_go_byte = 'g';

void close_descriptor(int& descriptor) {
    if (descriptor >= 0) {
        ::close(std::exchange(descriptor, -1));
    }
}

// Waits until one of the descriptors can be used; false when the time is up.
bool wait_for(pollfd* descriptors, nfds_t count, CLOCK::time_point limit) {
    for (;;) {
        int timeout = -1;
        if (limit != CLOCK::time_point::max()) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(limit - CLOCK::now()).count();
            timeout = static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
        }
        const int ready = ::poll(descriptors, count, timeout);
        if (ready > 0) {
            return true;
        }
        if (ready == 0 && CLOCK::now() >= limit) {
            return false;
        }
        if (ready < 0 && errno != EINTR && errno != EAGAIN) {
            return false;
        }
    }
}

// Whether a write or read that gave `count` may be tried again.
bool is_interrupted(ssize_t count) {
    return count < 0 && errno == EINTR;
}

bool would_block(ssize_t count) {
    return count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

// Writes parts to a socket; `wait` is called where the socket takes nothing now.
template <typename WAIT>
bool write_parts(int socket, const std::vector<FRAME_PART>& parts, int flags, const WAIT& wait) {
    std::vector<iovec> left;
    for (const FRAME_PART& part : parts) {
        if (part.size > 0) {
            left.push_back({const_cast<void*>(part.data), part.size});
        }
    }
    constexpr std::size_t most_at_once = 64;
    for (std::size_t at = 0; at < left.size();) {
        msghdr message = {};
        message.msg_iov = &left[at];
        message.msg_iovlen = std::min(left.size() - at, most_at_once);
        const ssize_t count = ::sendmsg(socket, &message, MSG_NOSIGNAL | flags);
        if (count < 0) {
            if (is_interrupted(count) || (would_block(count) && wait())) {
                continue;
            }
            return false;
        }
        std::size_t written = static_cast<std::size_t>(count);
        while (at < left.size() && written >= left[at].iov_len) {
            written -= left[at].iov_len;
            ++at;
        }
        if (written > 0) {
            left[at].iov_base = static_cast<char*>(left[at].iov_base) + written;
            left[at].iov_len -= written;
        }
    }
    return true;
}

// Has the system give memory in large pages for what is about to be read: a page of the usual size
// costs as much as the bytes that fill it.
void use_large_pages(void* buffer, std::size_t size) {
    constexpr std::size_t page = std::size_t{2} << 20;
    void* begin = buffer;
    if (std::align(page, page, begin, size) != nullptr) {
        ::madvise(begin, size - size % page, MADV_HUGEPAGE);
    }
}

std::string text_of_signal(int signal) {
    const char* const text = ::strsignal(signal);
    return "signal " + std::to_string(signal) + ", " + (text == nullptr ? "unknown" : text);
}

std::string text_of_status(int status) {
    return WIFSIGNALED(status) ? text_of_signal(WTERMSIG(status))
                               : "exit status " + std::to_string(WEXITSTATUS(status));
}

// ---- The host's side.

// Connects two sockets; false with errno. The near one is not in the place of a standard stream
// that the host has closed.
bool make_connection(std::array<int, 2>& ends) {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        return false;
    }
    if (ends[0] <= STDERR_FILENO) {
        const int near = ::fcntl(ends[0], F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        ::close(std::exchange(ends[0], near));
    }
    return ends[0] >= 0;
}

class POSIX_WORKER;

// The workers of this process, under the lock, so that a child that the host forks can let go of
// its copies.
POSIX_WORKER* living_workers = nullptr;

class POSIX_WORKER : public WORKER_PROCESS {
public:
    // To be made under the lock.
    POSIX_WORKER(int control, int frames)
        : m_control(control), m_frames(frames), m_next(living_workers) {
        living_workers = this;
    }

    ~POSIX_WORKER() override {
        {
            const std::lock_guard<std::mutex> lock(workers_mutex());
            POSIX_WORKER** place = &living_workers;
            while (*place != this) {
                place = &(*place)->m_next;
            }
            *place = m_next;
            forget();
        }
        reap_keeper();
    }
    POSIX_WORKER(const POSIX_WORKER&) = delete;
    POSIX_WORKER& operator=(const POSIX_WORKER&) = delete;

    void set_keeper(pid_t keeper) { m_keeper = keeper; }

    bool is_waiting() override {
        NOTE note;
        if (!m_greeted && peek(&note) && note.kind == NOTE::greeting) {
            greets();
        }
        std::array<pollfd, 2> descriptors = {{{m_control, POLLIN, 0}, {m_frames, POLLIN, 0}}};
        return m_control >= 0 && ::poll(descriptors.data(), descriptors.size(), 0) == 0;
    }

    bool greets() override {
        if (!m_greeted) {
            const NOTE note = next_note(std::min(m_limit, CLOCK::now() + greeting_limit));
            m_greeted = note.kind == NOTE::greeting;
        }
        return m_greeted;
    }

    bool send_streams() override {
        // One byte tells which streams there are; with it come those.
        unsigned char there = 0;
        std::array<int, 3> streams = {};
        std::size_t count = 0;
        for (int stream = 0; stream < 3; ++stream) {
            if (::fcntl(stream, F_GETFD) >= 0) {
                there = static_cast<unsigned char>(there | (1 << stream));
                streams[count] = stream;
                ++count;
            }
        }
        iovec byte = {&there, 1};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof streams)> space = {};
        msghdr message = {};
        message.msg_iov = &byte;
        message.msg_iovlen = 1;
        if (count > 0) {
            message.msg_control = space.data();
            message.msg_controllen = CMSG_SPACE(count * sizeof(int));
            cmsghdr* const header = CMSG_FIRSTHDR(&message);
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            header->cmsg_len = CMSG_LEN(count * sizeof(int));
            std::memcpy(CMSG_DATA(header), streams.data(), count * sizeof(int));
        }
        ssize_t sent = -1;
        do {
            sent = ::sendmsg(m_frames, &message, MSG_NOSIGNAL);
        } while (is_interrupted(sent));
        return sent == 1;
    }

    void set_time_limit(double seconds) override {
        constexpr double longest = 1e9;
        m_limit = seconds > 0 && seconds < longest
                      ? CLOCK::now() + std::chrono::duration_cast<CLOCK::duration>(
                                           std::chrono::duration<double>(seconds))
                      : CLOCK::time_point::max();
    }

    bool time_is_up() const override { return CLOCK::now() >= m_limit; }

    bool write(const std::vector<FRAME_PART>& parts) override {
        return write_parts(m_frames, parts, MSG_DONTWAIT, [this] {
            pollfd descriptor = {m_frames, POLLOUT, 0};
            return wait_for(&descriptor, 1, m_limit);
        });
    }

    bool read(void* buffer, std::size_t size) override {
        use_large_pages(buffer, size);
        char* at = static_cast<char*>(buffer);
        while (size > 0) {
            if (time_is_up()) {  // there may always be something to read
                return false;
            }
            const ssize_t count = ::recv(m_frames, at, size, MSG_DONTWAIT);
            if (would_block(count)) {
                if (!wait_for_frames()) {
                    return false;
                }
            } else if (count > 0) {
                at += count;
                size -= static_cast<std::size_t>(count);
            } else if (!is_interrupted(count)) {
                return false;
            }
        }
        return true;
    }

    void let_go() override {
        ssize_t sent = -1;
        do {
            sent = ::send(m_control, &let_go_byte, 1, MSG_NOSIGNAL);
        } while (is_interrupted(sent));
    }

    std::string end() override {
        // The keeper takes the end of what it hears as the order to end everything, and says
        // goodbye by its own end.
        ::shutdown(m_control, SHUT_WR);
        const CLOCK::time_point limit =
            CLOCK::now() + (m_greeted ? ending_limit : silent_ending_limit);
        std::string how = "its keeper is gone";
        for (;;) {
            const NOTE note = next_note(limit);
            if (note.kind == NOTE::ended) {
                how = text_of_status(note.status);
            } else if (note.kind != NOTE::greeting) {
                break;
            }
        }
        // What is no keeper does not go by itself. It has its number as long as it is there.
        if (is_keeper_there()) {
            ::kill(m_keeper, SIGKILL);
        }
        const std::lock_guard<std::mutex> lock(workers_mutex());
        forget();
        return how;
    }

    // Once: a child that is forked from now on closes its copies; the workers stay the host's.
    static void watch_forks() {
        static const int watched =
            ::pthread_atfork([] { workers_mutex().lock(); }, [] { workers_mutex().unlock(); },
                             [] {
                                 for (POSIX_WORKER* worker = living_workers; worker != nullptr;
                                      worker = worker->m_next) {
                                     worker->forget();
                                 }
                                 workers_mutex().unlock();
                             });
        static_cast<void>(watched);
    }

private:
    void forget() {
        close_descriptor(m_control);
        close_descriptor(m_frames);
    }

    // Waits for something to read. When the worker is gone there may be one who has its end of the
    // connection, and nothing will come of it: a process that the script forked in a way of its
    // own.
    bool wait_for_frames() {
        std::array<pollfd, 2> descriptors = {{{m_frames, POLLIN, 0}, {m_control, POLLIN, 0}}};
        if (!wait_for(descriptors.data(), descriptors.size(), m_limit)) {
            return false;
        }
        if (descriptors[0].revents != 0) {
            return true;
        }
        // What the worker wrote before its end is there now.
        return ::poll(descriptors.data(), 1, 0) > 0;
    }

    bool is_keeper_there() const {
        pollfd descriptor = {m_control, 0, 0};
        return m_keeper > 0 && ::poll(&descriptor, 1, 0) == 0;
    }

    bool peek(NOTE* note) const {
        return ::recv(m_control, note, sizeof *note, MSG_DONTWAIT | MSG_PEEK) ==
               static_cast<ssize_t>(sizeof *note);
    }

    // The keeper's next note; one of no kind when there is none.
    NOTE next_note(CLOCK::time_point limit) const {
        NOTE note;
        char* at = reinterpret_cast<char*>(&note);
        char* const end = at + sizeof note;
        while (at < end) {
            pollfd descriptor = {m_control, POLLIN, 0};
            if (!wait_for(&descriptor, 1, limit)) {
                return NOTE();
            }
            const ssize_t count =
                ::recv(m_control, at, static_cast<std::size_t>(end - at), MSG_DONTWAIT);
            if (count > 0) {
                at += count;
            } else if (!is_interrupted(count) && !would_block(count)) {
                return NOTE();
            }
        }
        return note;
    }

    // A host that is the first process, or takes its descendants' orphans, gets the keeper for a
    // child after all.
    void reap_keeper() const {
        int takes_orphans = 0;
        ::prctl(PR_GET_CHILD_SUBREAPER, &takes_orphans);
        if (m_keeper <= 0 || (takes_orphans == 0 && ::getpid() != 1)) {
            return;
        }
        const CLOCK::time_point limit = CLOCK::now() + ending_limit;
        while (::waitpid(m_keeper, nullptr, WNOHANG) == 0 && CLOCK::now() < limit) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    int m_control;
    int m_frames;
    pid_t m_keeper = 0;
    bool m_greeted = false;
    CLOCK::time_point m_limit = CLOCK::time_point::max();
    POSIX_WORKER* m_next;
};

// ---- The start: host, a process that ends at once, and the keeper. Both run in the memory of the
// host, which waits meanwhile, and call only what may be called there.

struct START {
    const char* program;
    char* const* arguments;
    int control;
    int frames;
    sigset_t mask;         // the caller's
    char* inner_stack;     // its upper end
    volatile int failure;  // an errno
    volatile pid_t keeper;
};

constexpr std::size_t stack_size = std::size_t{64} * 1024;

// Gives handled signals back their default. The host's handlers must not run here, and an exec does
// the same.
void drop_signal_handlers() {
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action = {};
        if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
            action.sa_handler != SIG_IGN) {
            action = {};
            action.sa_handler = SIG_DFL;
            ::sigaction(signal, &action, nullptr);
        }
    }
}

// The address sanitizer knows nothing of the stacks on which these two leave.
[[gnu::no_sanitize_address]] int become_keeper(void* argument) {
    START& start = *static_cast<START*>(argument);
    // Out of the way first: the host's descriptors may have any numbers, those of closed standard
    // streams too.
    constexpr int out_of_the_way = 64;
    const int control = ::fcntl(start.control, F_DUPFD, out_of_the_way);
    const int frames = ::fcntl(start.frames, F_DUPFD, out_of_the_way);
    for (const int descriptor : {start.control, start.frames}) {
        if (descriptor < control_descriptor) {
            ::close(descriptor);
        }
    }
    if (control < 0 || frames < 0 || ::dup2(control, control_descriptor) < 0 ||
        ::dup2(frames, frames_descriptor) < 0) {
        start.failure = errno;
        ::_exit(1);
    }
#if defined(SYS_close_range)
    // Where the system cannot do this the program does it as its first act.
    ::syscall(SYS_close_range, static_cast<unsigned>(frames_descriptor) + 1, ~0U, 0U);
#endif
    drop_signal_handlers();
    ::sigprocmask(SIG_SETMASK, &start.mask, nullptr);
    ::execv(start.program, start.arguments);
    start.failure = errno;
    ::_exit(1);
}

[[gnu::no_sanitize_address]] int become_nobodys_parent(void* argument) {
    START& start = *static_cast<START*>(argument);
    const int keeper =
        ::clone(become_keeper, start.inner_stack, CLONE_VM | CLONE_VFORK | SIGCHLD, argument);
    if (keeper < 0) {
        start.failure = errno;
    }
    start.keeper = keeper;
    ::_exit(0);
    return 0;  // what clone wants; not reached
}

// Starts the keeper; an errno, or 0.
int start_keeper(START& start) {
    void* const stacks = ::mmap(nullptr, 2 * stack_size, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
    if (stacks == MAP_FAILED) {
        return errno;
    }
    char* const outer_stack = static_cast<char*>(stacks) + stack_size;
    start.inner_stack = outer_stack + stack_size;
    int cancelling = 0;
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelling);
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &start.mask);
    // A child without a signal for its end: the host's wait for any child does not see it.
    const pid_t child = ::clone(become_nobodys_parent, outer_stack, CLONE_VM | CLONE_VFORK, &start);
    int failure = child < 0 ? errno : 0;
    if (child > 0) {
        while (::waitpid(child, nullptr, static_cast<int>(__WCLONE)) < 0 && errno == EINTR) {
        }
        failure = start.failure;
    }
    ::pthread_sigmask(SIG_SETMASK, &start.mask, nullptr);
    ::pthread_setcancelstate(cancelling, nullptr);
    ::munmap(stacks, 2 * stack_size);
    return failure;
}

// ---- The keeper's and the worker's side.

// Gives the standard streams to nobody, so that this process holds nothing of the host's.
void hold_no_streams() {
    const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int stream = 0; nothing >= 0 && stream <= 2; ++stream) {
        if (::fcntl(stream, F_GETFD) >= 0) {
            ::dup2(nothing, stream);
        }
    }
    if (nothing > 2) {
        ::close(nothing);
    }
}

// Closes everything but the standard streams and the two connections.
void close_foreign_descriptors() {
    std::vector<int> foreign;
    if (DIR* const folder = ::opendir("/proc/self/fd")) {
        while (const dirent* const entry = ::readdir(folder)) {
            const int descriptor = std::atoi(entry->d_name);
            if (descriptor > frames_descriptor && descriptor != ::dirfd(folder)) {
                foreign.push_back(descriptor);
            }
        }
        ::closedir(folder);
    }
    for (const int descriptor : foreign) {
        ::close(descriptor);
    }
}

// Kills the processes whose parent is this one.
void kill_children() {
    const pid_t self = ::getpid();
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc", error), end; !error && entry != end;
         entry.increment(error)) {
        const pid_t process = std::atoi(entry->path().filename().c_str());
        if (process <= 0) {
            continue;
        }
        std::ifstream file(entry->path() / "stat");
        std::string line;
        std::getline(file, line);
        // "123 (name) S 122 ...": the name may hold anything.
        const std::size_t name_end = line.rfind(')');
        if (name_end != std::string::npos && name_end + 4 < line.size() &&
            std::atoi(line.c_str() + name_end + 4) == self) {
            ::kill(process, SIGKILL);
        }
    }
}

// The keeper, from when it has made its worker.
class KEEPER {
public:
    explicit KEEPER(pid_t worker) : m_worker(worker) {}

    [[noreturn]] void keep() {
        NOTE greeting;
        greeting.kind = NOTE::greeting;
        tell(greeting);
        sigset_t child_signal;
        ::sigemptyset(&child_signal);
        ::sigaddset(&child_signal, SIGCHLD);
        ::sigprocmask(SIG_SETMASK, &child_signal, nullptr);
        const int signals = ::signalfd(-1, &child_signal, SFD_CLOEXEC | SFD_NONBLOCK);
        for (;;) {
            reap();
            if (m_let_go && m_worker == 0) {
                ::_exit(0);  // what the script has started and left behind goes on
            }
            std::array<pollfd, 2> descriptors = {
                {{m_let_go ? -1 : control_descriptor, POLLIN, 0}, {signals, POLLIN, 0}}};
            if (!wait_for(descriptors.data(), descriptors.size(), m_limit) && m_worker > 0) {
                ::kill(m_worker, SIGKILL);
                m_limit = CLOCK::time_point::max();
            }
            signalfd_siginfo ignored = {};
            while (::read(signals, &ignored, sizeof ignored) > 0) {
            }
            if (descriptors[0].revents != 0) {
                hear();
            }
        }
    }

private:
    void hear() {
        char byte = 0;
        const ssize_t count = ::recv(control_descriptor, &byte, 1, MSG_DONTWAIT);
        if (count == 1 && byte == let_go_byte) {
            m_let_go = true;
            m_limit = CLOCK::now() + ending_limit;
        } else if (!is_interrupted(count) && !would_block(count)) {
            end_all();
        }
    }

    void reap() {
        int status = 0;
        pid_t ended = 0;
        while ((ended = ::waitpid(-1, &status, WNOHANG)) > 0) {
            if (ended == m_worker) {
                m_worker = 0;
                NOTE note;
                note.kind = NOTE::ended;
                note.status = status;
                tell(note);
            }
        }
    }

    // Descendants come to this process when their parents go, until there are none.
    [[noreturn]] void end_all() {
        const CLOCK::time_point limit = CLOCK::now() + ending_limit;
        if (m_worker > 0) {
            ::kill(m_worker, SIGKILL);
            siginfo_t ended;
            ::waitid(P_PID, static_cast<id_t>(m_worker), &ended, WEXITED | WNOWAIT);
        }
        for (;;) {
            reap();
            int status = 0;
            if (::waitpid(-1, &status, WNOHANG) < 0 || CLOCK::now() > limit) {
                ::_exit(0);
            }
            kill_children();
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    static void tell(const NOTE& note) {
        static_cast<void>(::send(control_descriptor, &note, sizeof note, MSG_NOSIGNAL));
    }

    pid_t m_worker;
    bool m_let_go = false;
    CLOCK::time_point m_limit = CLOCK::time_point::max();
};

class POSIX_HOST_CONNECTION : public HOST_CONNECTION {
public:
    POSIX_HOST_CONNECTION() {
        own_connection = this;
        ::fcntl(m_socket, F_SETFD, FD_CLOEXEC);
        ::pthread_atfork(nullptr, nullptr, [] {
            close_descriptor(own_connection->m_socket);
            own_connection->m_is_own = false;
        });
    }

    bool is_own() const override { return m_is_own; }

    void release_streams() override { hold_no_streams(); }

    // Folders can be renamed and deleted whoever is in them.
    void leave_folder() override {}

    bool read(void* buffer, std::size_t size) override {
        use_large_pages(buffer, size);
        char* at = static_cast<char*>(buffer);
        while (size > 0) {
            const ssize_t count = ::recv(m_socket, at, size, MSG_WAITALL);
            if (count > 0) {
                at += count;
                size -= static_cast<std::size_t>(count);
            } else if (!is_interrupted(count)) {
                return false;
            }
        }
        return true;
    }

    bool write(const std::vector<FRAME_PART>& parts) override {
        return write_parts(m_socket, parts, 0, [] { return false; });
    }

    bool receive_streams() override {
        unsigned char there = 0;
        iovec byte = {&there, 1};
        std::array<int, 3> streams = {};
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof streams)> space = {};
        msghdr message = {};
        message.msg_iov = &byte;
        message.msg_iovlen = 1;
        message.msg_control = space.data();
        message.msg_controllen = space.size();
        ssize_t count = -1;
        do {
            count = ::recvmsg(m_socket, &message, MSG_CMSG_CLOEXEC);
        } while (is_interrupted(count));
        if (count != 1) {
            return false;
        }
        std::size_t received = 0;
        if (const cmsghdr* const header = CMSG_FIRSTHDR(&message)) {
            received = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            std::memcpy(streams.data(), CMSG_DATA(header), received * sizeof(int));
        }
        // Those of closed streams may have come in the places of others.
        for (std::size_t stream = 0; stream < received; ++stream) {
            const int came = streams[stream];
            streams[stream] = ::fcntl(came, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
            ::close(came);
        }
        std::size_t next = 0;
        for (int stream = 0; stream < 3; ++stream) {
            if ((there & (1 << stream)) != 0 && next < received) {
                ::dup2(streams[next], stream);
                ::close(streams[next]);
                ++next;
            } else {
                ::close(stream);
            }
        }
        return true;
    }

private:
    // The one of the process.
    static POSIX_HOST_CONNECTION* own_connection;

    int m_socket = frames_descriptor;
    bool m_is_own = true;
};

POSIX_HOST_CONNECTION* POSIX_HOST_CONNECTION::own_connection = nullptr;

// The kind of a standard stream, as far as Python looks at it when it starts.
std::string kind_of_stream(int stream) {
    struct stat status = {};
    if (::fstat(stream, &status) != 0) {
        return "-";
    }
    return std::to_string(status.st_mode & S_IFMT) + (::isatty(stream) != 0 ? "t" : "") + "b" +
           std::to_string(status.st_blksize);
}

// What of this thread's status a started process inherits: credentials, signals, the mask of new
// files (asking umask itself would change it for a moment, for other threads too).
std::string inherited_status() {
    constexpr std::array<std::string_view, 9> names = {
        "Umask:",  "Uid:",    "Gid:",    "Groups:",    "SigBlk:",
        "SigIgn:", "CapPrm:", "CapEff:", "NoNewPrivs:"};
    std::string status;
    const int file = ::open("/proc/thread-self/status", O_RDONLY | O_CLOEXEC);
    std::array<char, 4096> buffer = {};
    for (ssize_t count = 0; (count = ::read(file, buffer.data(), buffer.size())) > 0;) {
        status.append(buffer.data(), static_cast<std::size_t>(count));
    }
    if (file >= 0) {
        ::close(file);
    }
    std::string text;
    for (std::size_t at = 0; at < status.size();) {
        const std::size_t end = std::min(status.find('\n', at), status.size());
        const std::string_view line = std::string_view(status).substr(at, end - at);
        if (std::any_of(names.begin(), names.end(), [line](std::string_view name) {
                return line.substr(0, name.size()) == name;
            })) {
            text.append(line) += '\n';
        }
        at = end + 1;
    }
    return text;
}

std::string find_folder_of_library() {
    Dl_info info = {};
    if (::dladdr(reinterpret_cast<void*>(&folder_of_library), &info) == 0 ||
        info.dli_fname == nullptr) {
        return std::string();
    }
    // A program's own name may be a relative one, or found by a search.
    std::error_code error;
    const bool is_program_itself = std::strchr(info.dli_fname, '/') == nullptr;
    const std::filesystem::path file =
        std::filesystem::canonical(is_program_itself ? "/proc/self/exe" : info.dli_fname, error);
    return error ? std::string() : file.parent_path().string();
}

// Found when the library is loaded: its name may be relative to the folder of then. Plain bytes,
// for calls that go on while the process ends.
struct FOLDER_AT_LOAD {
    FOLDER_AT_LOAD() {
        const std::string folder = find_folder_of_library();
        if (folder.size() < text.size()) {
            folder.copy(text.data(), folder.size());
        }
    }
    std::array<char, PATH_MAX> text = {};
};
const FOLDER_AT_LOAD folder_at_load;

}  // namespace

const char worker_program_name[] = "pgm_python_worker";

std::mutex& workers_mutex() {
    static std::mutex mutex;
    return mutex;
}

std::string surroundings_of_process() {
    // Zero bytes part what no part can hold.
    std::vector<std::string> variables;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        variables.push_back(*variable);
    }
    std::sort(variables.begin(), variables.end());
    std::string text;
    for (const std::string& variable : variables) {
        text += variable + '\0';
    }
    struct stat folder = {};
    ::stat(".", &folder);
    std::error_code ignored;
    text += '\0' + std::filesystem::current_path(ignored).string() + '\0' +
            std::to_string(folder.st_dev) + ':' + std::to_string(folder.st_ino) + '\0';
    text += inherited_status() + '\0';
    for (int resource = 0; resource < static_cast<int>(RLIM_NLIMITS); ++resource) {
        rlimit limit = {};
        ::getrlimit(static_cast<decltype(RLIMIT_NOFILE)>(resource), &limit);
        text += std::to_string(limit.rlim_cur) + ':' + std::to_string(limit.rlim_max) + '\0';
    }
    const char* const locale = std::setlocale(LC_ALL, nullptr);
    text += (locale == nullptr ? "" : locale) + std::string(1, '\0');
    for (int stream = 0; stream < 3; ++stream) {
        text += kind_of_stream(stream) + '\0';
    }
    return text;
}

std::string folder_of_library() {
    return folder_at_load.text.data();
}

bool is_program(const std::string& file) {
    struct stat status = {};
    return ::stat(file.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::unique_ptr<WORKER_PROCESS> WORKER_PROCESS::start(const std::string& program,
                                                      std::string& reason) {
    std::array<int, 2> control = {-1, -1};
    std::array<int, 2> frames = {-1, -1};
    std::unique_ptr<POSIX_WORKER> worker;
    int failure = 0;
    POSIX_WORKER::watch_forks();
    std::unique_lock<std::mutex> lock(workers_mutex());  // nothing is forked meanwhile
    if (!make_connection(control) || !make_connection(frames)) {
        failure = errno;
    } else {
        worker = std::make_unique<POSIX_WORKER>(std::exchange(control[0], -1),
                                                std::exchange(frames[0], -1));
        const char* const locale = std::setlocale(LC_ALL, nullptr);
        std::array<std::string, 3> texts = {program, worker_mark, locale == nullptr ? "" : locale};
        std::array<char*, 4> arguments = {&texts[0][0], &texts[1][0], &texts[2][0], nullptr};
        START start = {program.c_str(), arguments.data(), control[1], frames[1], {}, nullptr, 0, 0};
        failure = start_keeper(start);
        worker->set_keeper(start.keeper);
    }
    for (int* const descriptor : {&control[0], &control[1], &frames[0], &frames[1]}) {
        close_descriptor(*descriptor);
    }
    lock.unlock();
    if (failure != 0) {
        reason = std::strerror(failure);
        return nullptr;
    }
    return worker;
}

int serve_worker(int argc, char** argv, void (*serve)(HOST_CONNECTION& host)) {
    struct stat socket = {};
    if (argc != 3 || std::strcmp(argv[1], worker_mark) != 0 ||
        ::fstat(control_descriptor, &socket) != 0 || !S_ISSOCK(socket.st_mode)) {
        std::fputs("This program serves the calls of pgm_python; it is not for use by hand.\n",
                   stderr);
        return 2;
    }
    close_foreign_descriptors();
    ::fcntl(control_descriptor, F_SETFD, FD_CLOEXEC);
    ::prctl(PR_SET_CHILD_SUBREAPER, 1);
    // A host that ignores the ends of children hands that on.
    struct sigaction before = {};
    struct sigaction plain = {};
    plain.sa_handler = SIG_DFL;
    ::sigaction(SIGCHLD, &plain, &before);
    const pid_t keeper = ::getpid();
    const pid_t worker = ::fork();
    if (worker < 0) {
        return 1;
    }
    if (worker > 0) {
        ::close(frames_descriptor);
        hold_no_streams();
        static_cast<void>(::chdir("/"));
        // What a terminal or a shell sends to all of a program's processes is for the worker.
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) {
            ::signal(signal, SIG_IGN);
        }
        KEEPER(worker).keep();
    }
    ::close(control_descriptor);
    ::sigaction(SIGCHLD, &before, nullptr);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != keeper) {
        ::_exit(0);
    }
    std::setlocale(LC_ALL, argv[2]);
    static POSIX_HOST_CONNECTION connection;
    serve(connection);
    end_worker();
}

void end_worker() {
    std::fflush(nullptr);
    ::_exit(0);
}
