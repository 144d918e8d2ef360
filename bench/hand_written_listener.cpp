#include "bench/hand_written_listener.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>

#include "bench/contestant.h"

namespace {

int open_listener() {
    addrinfo hints = {};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    addrinfo* address = nullptr;
    if (::getaddrinfo("0.0.0.0", "57343", &hints, &address) != 0) {
        return -1;
    }
    const int reuse = 1;
    const int listener =
        ::socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol);
    const bool listens =
        listener >= 0 &&
        ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse) == 0 &&
        ::bind(listener, address->ai_addr, address->ai_addrlen) == 0 &&
        ::listen(listener, SOMAXCONN) == 0;
    ::freeaddrinfo(address);
    return listens ? listener : -1;
}

}  // namespace

void HAND_WRITTEN_LISTENER::start() {
    std::promise<void> ready;
    m_thread = std::thread([this, &ready] {
        m_listener = open_listener();
        ready.set_value();
        listen();
        m_ended = true;
    });
    ready.get_future().wait();
    if (m_listener < 0) {
        stop("the port of the back channel is taken");
    }
}

void HAND_WRITTEN_LISTENER::listen() {
    m_client = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (m_client < 0) {
        return;
    }
    char buffer[2048];
    const ssize_t count = ::recv(m_client, buffer, sizeof buffer, 0);
    if (count > 0) {
        m_text.assign(buffer, static_cast<std::size_t>(count));
    }
    ::shutdown(m_client, SHUT_WR);
}

std::vector<std::string> HAND_WRITTEN_LISTENER::finish(bool success) {
    for (int period = 0; !success && period < 5 && !m_ended; ++period) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (!m_ended) {
        ::shutdown(m_listener, SHUT_RDWR);
        ::shutdown(m_client, SHUT_RDWR);
    }
    m_thread.join();
    ::close(m_listener);
    if (m_client >= 0) {
        ::close(m_client);
    }
    std::vector<std::string> reasons;
    const std::string delimiter = " !@#$^&*() ";
    for (std::size_t at = 0; !success && at < m_text.size();) {
        const std::size_t end = std::min(m_text.find(delimiter, at), m_text.size());
        reasons.push_back(m_text.substr(at, end - at));
        at = end + delimiter.size();
    }
    return reasons;
}
