// SPDX-License-Identifier: ISC
// xmldb: substitute configuration database server. One thread, one epoll
// loop, non-blocking sockets; each connection carries one command and is
// closed after its reply. A client that stalls is dropped at its deadline so
// it never holds up the others.
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "request.h"
#include "store.h"
#include "traffic.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kDeadline = std::chrono::seconds(2);
constexpr std::string_view kCommandsKey = "/runtime/xmldb/commands";
struct Options {
    std::string sock = "/var/run/xmldb_sock";
    std::string profile;
    std::string state;
    std::string hold;  // -t: simulated traffic, held while this file exists
    bool traffic = false;
};

struct Conn {
    std::string in;   // request bytes so far, when they came in pieces
    std::string out;  // reply bytes not yet written
    std::size_t out_off = 0;
    bool registered = false;
};

class Server {
public:
    explicit Server(Options opt) : opt_(std::move(opt))
    {
        if (opt_.traffic)
            traffic_ = std::make_unique<xmldb::Traffic>(
                opt_.hold, Clock::now(),
                static_cast<uint64_t>(Clock::now().time_since_epoch().count()) ^ getpid());
    }
    int run();

private:
    bool load_initial();
    bool open_listener();
    void accept_all();
    void on_readable(int fd);
    void on_writable(int fd);
    // Handles the bytes of a request once it is whole; false while not.
    bool try_request(int fd, const char *data, std::size_t len);
    void reply(int fd, std::string &bytes);
    void drop(int fd);
    void expire();
    int timeout_ms() const;

    Options opt_;
    xmldb::Store store_;
    std::unique_ptr<xmldb::Traffic> traffic_;
    unsigned long commands_ = 0;
    int lfd_ = -1, efd_ = -1, sfd_ = -1, spare_ = -1;
    ino_t sock_ino_ = 0;
    std::vector<std::unique_ptr<Conn>> conns_;
    std::vector<uint32_t> gens_;
    struct Due {
        Clock::time_point at;
        int fd;
        uint32_t gen;
    };
    std::deque<Due> due_;  // accept order == deadline order
    char rbuf_[xmldb::kHeaderSize + 65536];
    std::string out_;  // the reply being made, its storage kept
    unsigned long long served_ = 0;
};

bool Server::load_initial()
{
    std::string err;
    xmldb::Map map;
    if (!opt_.state.empty() && access(opt_.state.c_str(), F_OK) == 0) {
        if (!xmldb::load_file(opt_.state, map, err)) {
            std::fprintf(stderr, "xmldb: cannot load state file %s\n", err.c_str());
            return false;
        }
    } else if (!opt_.profile.empty()) {
        if (!xmldb::load_file(opt_.profile, map, err)) {
            std::fprintf(stderr, "xmldb: cannot load profile %s\n", err.c_str());
            return false;
        }
    }
    store_.replace(std::move(map));
    return true;
}

bool Server::open_listener()
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (opt_.sock.empty() || opt_.sock.size() >= sizeof(addr.sun_path)) {
        std::fprintf(stderr, "xmldb: socket path must be 1 to %zu characters\n",
                     sizeof(addr.sun_path) - 1);
        return false;
    }
    std::memcpy(addr.sun_path, opt_.sock.c_str(), opt_.sock.size() + 1);

    struct stat st;
    if (lstat(opt_.sock.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            std::fprintf(stderr, "xmldb: %s exists and is not a socket\n", opt_.sock.c_str());
            return false;
        }
        int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool live = probe >= 0 &&
                    connect(probe, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0;
        if (probe >= 0)
            close(probe);
        if (live) {
            std::fprintf(stderr, "xmldb: another server is listening on %s\n", opt_.sock.c_str());
            return false;
        }
        unlink(opt_.sock.c_str());  // left over from a server that died
    }

    lfd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (lfd_ < 0 || bind(lfd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) < 0 ||
        listen(lfd_, SOMAXCONN) < 0) {
        std::fprintf(stderr, "xmldb: cannot listen on %s: %s\n", opt_.sock.c_str(),
                     std::strerror(errno));
        return false;
    }
    if (stat(opt_.sock.c_str(), &st) == 0)
        sock_ino_ = st.st_ino;
    return true;
}

int Server::run()
{
    if (!load_initial())
        return 1;

    // More descriptors than the default soft limit: many clients at once.
    rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
    signal(SIGPIPE, SIG_IGN);
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGUSR1);
    sigprocmask(SIG_BLOCK, &mask, nullptr);

    if (!open_listener())
        return 1;
    sfd_ = signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC);
    efd_ = epoll_create1(EPOLL_CLOEXEC);
    // Held in reserve so that accept can still take and shed a client when
    // the descriptors run out, instead of spinning on a full backlog.
    spare_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (sfd_ < 0 || efd_ < 0) {
        std::perror("xmldb");
        return 1;
    }
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = lfd_;
    epoll_ctl(efd_, EPOLL_CTL_ADD, lfd_, &ev);
    ev.data.fd = sfd_;
    epoll_ctl(efd_, EPOLL_CTL_ADD, sfd_, &ev);

    epoll_event events[64];
    bool stop = false;
    while (!stop) {
        int n = epoll_wait(efd_, events, 64, timeout_ms());
        if (n < 0 && errno != EINTR) {
            std::perror("xmldb: epoll_wait");
            break;
        }
        for (int i = 0; i < n; i++) {
            int fd = events[i].data.fd;
            if (fd == lfd_) {
                accept_all();
            } else if (fd == sfd_) {
                signalfd_siginfo si{};
                while (read(sfd_, &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
                    if (si.ssi_signo != SIGUSR1) {
                        stop = true;
                    } else {
                        // For benchmarks: commands served so far.
                        std::fprintf(stderr, "xmldb: %llu commands served\n", served_);
                        std::fflush(stderr);
                    }
                }
            } else if (fd < static_cast<int>(conns_.size()) && conns_[fd]) {
                if (!conns_[fd]->out.empty())
                    on_writable(fd);
                else
                    on_readable(fd);
            }
        }
        expire();
    }

    for (std::size_t fd = 0; fd < conns_.size(); fd++)
        if (conns_[fd])
            close(static_cast<int>(fd));
    struct stat st;
    if (stat(opt_.sock.c_str(), &st) == 0 && st.st_ino == sock_ino_)
        unlink(opt_.sock.c_str());
    close(lfd_);
    return 0;
}

void Server::accept_all()
{
    // One connection per wake-up: the listener is level-triggered, so a
    // backlog is still reported, and the common single client costs no
    // extra accept that would only say EAGAIN.
    int fd = accept4(lfd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
        if ((errno == EMFILE || errno == ENFILE) && spare_ >= 0) {
            close(spare_);
            int shed = accept(lfd_, nullptr, nullptr);
            if (shed >= 0)
                close(shed);
            spare_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
        }
        return;
    }
    if (fd >= static_cast<int>(conns_.size())) {
        conns_.resize(fd + 1);
        gens_.resize(fd + 1, 0);
    }
    conns_[fd] = std::make_unique<Conn>();
    // The request is usually there already: serve it without a trip
    // through epoll.
    on_readable(fd);
}

void Server::on_readable(int fd)
{
    Conn *c = conns_[fd].get();
    for (;;) {
        ssize_t n = read(fd, rbuf_, sizeof(rbuf_));
        if (n > 0) {
            std::size_t len = static_cast<std::size_t>(n);
            if (c->in.empty()) {
                if (try_request(fd, rbuf_, len))
                    return;
                c->in.assign(rbuf_, len);
            } else {
                c->in.append(rbuf_, len);
                if (try_request(fd, c->in.data(), c->in.size()))
                    return;
            }
            // A short read drained the socket: wait for more instead of
            // asking again just to hear EAGAIN.
            if (len < sizeof(rbuf_))
                break;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        drop(fd);  // closed before the request was whole, or an error
        return;
    }
    if (!c->registered) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = fd;
        if (epoll_ctl(efd_, EPOLL_CTL_ADD, fd, &ev) < 0) {
            drop(fd);
            return;
        }
        c->registered = true;
        due_.push_back({Clock::now() + kDeadline, fd, gens_[fd]});
    }
}

bool Server::try_request(int fd, const char *data, std::size_t len)
{
    auto req = xmldb::parse_request(std::string_view(data, len));
    if (!req)
        return false;
    // The commands served so far, for a benchmark that weighs a client by
    // its database traffic; asking is not counted.
    if (req->cmd == xmldb::GET && req->arg == kCommandsKey) {
        out_ = std::to_string(commands_);
        out_ += '\0';
        reply(fd, out_);
        return true;
    }
    ++commands_;
    if (traffic_)
        traffic_->advance(store_, Clock::now());
    ++served_;
    if (!xmldb::run_command(store_, opt_.state, *req, out_))
        drop(fd);
    else
        reply(fd, out_);
    return true;
}

// A reply not sent whole takes the bytes along to the connection.
void Server::reply(int fd, std::string &bytes)
{
    Conn *c = conns_[fd].get();
    // Whole reply in one write: a typed read takes only what one read returns.
    ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n == static_cast<ssize_t>(bytes.size()) || (n < 0 && errno != EAGAIN)) {
        drop(fd);  // done, or the client went away: either way finished
        return;
    }
    c->out = std::move(bytes);
    c->out_off = n > 0 ? static_cast<std::size_t>(n) : 0;
    c->in.clear();
    epoll_event ev{};
    ev.events = EPOLLOUT;
    ev.data.fd = fd;
    int op = c->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
    if (epoll_ctl(efd_, op, fd, &ev) < 0) {
        drop(fd);
        return;
    }
    if (!c->registered)
        due_.push_back({Clock::now() + kDeadline, fd, gens_[fd]});
    c->registered = true;
}

void Server::on_writable(int fd)
{
    Conn *c = conns_[fd].get();
    std::size_t left = c->out.size() - c->out_off;
    ssize_t n = send(fd, c->out.data() + c->out_off, left, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0)
        c->out_off += static_cast<std::size_t>(n);
    if (c->out_off == c->out.size() || (n < 0 && errno != EAGAIN && errno != EINTR))
        drop(fd);
}

void Server::drop(int fd)
{
    close(fd);  // also leaves the epoll set
    conns_[fd].reset();
    gens_[fd]++;
}

void Server::expire()
{
    auto now = Clock::now();
    while (!due_.empty() && due_.front().at <= now) {
        Due d = due_.front();
        due_.pop_front();
        if (d.fd < static_cast<int>(conns_.size()) && conns_[d.fd] && gens_[d.fd] == d.gen)
            drop(d.fd);
    }
    // Entries of connections that finished early only wait for their time.
}

int Server::timeout_ms() const
{
    if (due_.empty())
        return -1;
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(due_.front().at - Clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count()) + 1;
}

void usage(FILE *to)
{
    std::fputs(
        "usage: xmldb [-s SOCKET] [-f PROFILE] [-p STATEFILE] [-t HOLDFILE]\n"
        "Substitute configuration database server.\n"
        "  -s SOCKET     Unix socket to listen on (default /var/run/xmldb_sock)\n"
        "  -f PROFILE    load this profile at start\n"
        "  -p STATEFILE  state file: loaded at start when present (preferred over -f),\n"
        "                written by a dump with an empty argument\n"
        "  -t HOLDFILE   simulated traffic: every 3 s the statistics counters under\n"
        "                /runtime/stats grow and the load figures move, unless\n"
        "                HOLDFILE exists (applied when the next request comes)\n"
        "  --help        show this help\n"
        "Stops on SIGTERM or SIGINT and removes its socket. SIGUSR1: prints the\n"
        "number of commands served so far to standard error.\n",
        to);
}

}  // namespace

int main(int argc, char **argv)
{
    Options opt;
    for (int i = 1; i < argc; i++) {
        std::string_view a = argv[i];
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        }
        std::string *target = a == "-s"   ? &opt.sock
                              : a == "-f" ? &opt.profile
                              : a == "-p" ? &opt.state
                              : a == "-t" ? &opt.hold
                                          : nullptr;
        if (!target || i + 1 >= argc) {
            std::fprintf(stderr, "xmldb: %s %s\n", target ? "missing value for" : "unknown option", argv[i]);
            usage(stderr);
            return 1;
        }
        *target = argv[++i];
        opt.traffic = opt.traffic || target == &opt.hold;
    }
    auto server = std::make_unique<Server>(std::move(opt));
    return server->run();
}
