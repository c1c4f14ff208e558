#include "tools/stream_output.h"

#include <netdb.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cerrno>
#include <cstring>

namespace zfn::tools {

namespace {

constexpr size_t PACKET = 188;

// "HOST:PORT" (an IPv6 host in brackets) to a socket address.
bool ResolveUdp(const std::string& text, sockaddr_storage* address, socklen_t* length, std::string* error) {
  std::string host, port;
  if (!text.empty() && text[0] == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos || close + 1 >= text.size() || text[close + 1] != ':') {
      *error = "--udp needs HOST:PORT, '" + text + "' is not";
      return false;
    }
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
  } else {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size()) {
      *error = "--udp needs HOST:PORT, '" + text + "' is not";
      return false;
    }
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  const int r = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
  if (r != 0 || found == nullptr) {
    *error = "--udp: cannot resolve '" + text + "': " + gai_strerror(r);
    return false;
  }
  std::memcpy(address, found->ai_addr, found->ai_addrlen);
  *length = found->ai_addrlen;
  freeaddrinfo(found);
  return true;
}

}  // namespace

StreamOutput::~StreamOutput() { Finish(); }

bool StreamOutput::Start(int fd, const std::string& udp, std::string* error) {
  fd_ = fd;
  if (!udp.empty()) {
    if (!ResolveUdp(udp, &destination_, &destinationLength_, error)) return false;
    socket_ = socket(destination_.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (socket_ < 0) {
      *error = std::string("--udp: no socket: ") + std::strerror(errno);
      return false;
    }
    datagram_.reserve(PACKETS_PER_DATAGRAM * PACKET);
  }
  ring_.assign(RING_BYTES, 0);
  // The writer takes no stop signals: the main thread handles them.
  sigset_t block, old;
  sigemptyset(&block);
  sigaddset(&block, SIGINT);
  sigaddset(&block, SIGTERM);
  sigaddset(&block, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &block, &old);
  writer_ = std::thread([this] { Run(); });
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  return true;
}

void StreamOutput::Push(const uint8_t* data, size_t length) {
  received_.fetch_add(static_cast<int64_t>(length), std::memory_order_relaxed);
  if (ring_.empty()) return;
  const uint64_t head = head_.load(std::memory_order_relaxed);
  const uint64_t tail = tail_.load(std::memory_order_acquire);
  if (head - tail + length > ring_.size()) {
    dropped_.fetch_add(static_cast<int64_t>(length), std::memory_order_relaxed);
    return;
  }
  const size_t at = head % ring_.size();
  const size_t first = std::min(length, ring_.size() - at);
  std::memcpy(ring_.data() + at, data, first);
  std::memcpy(ring_.data(), data + first, length - first);
  head_.store(head + length, std::memory_order_release);
  wake_.notify_one();  // without the lock: a missed wake costs the writer at most its poll period
}

void StreamOutput::Run() {
  for (;;) {
    const uint64_t tail = tail_.load(std::memory_order_relaxed);
    const uint64_t head = head_.load(std::memory_order_acquire);
    if (head == tail) {
      if (finishing_.load()) return;
      std::unique_lock<std::mutex> hold(wakeLock_);
      wake_.wait_for(hold, std::chrono::milliseconds(10),
                     [&] { return finishing_.load() || head_.load(std::memory_order_acquire) != head; });
      continue;
    }
    const size_t at = tail % ring_.size();
    const size_t count = static_cast<size_t>(std::min<uint64_t>(head - tail, ring_.size() - at));
    Deliver(ring_.data() + at, count);
    tail_.store(tail + count, std::memory_order_release);
  }
}

void StreamOutput::Deliver(const uint8_t* data, size_t length) {
  services_.Push(data, length);
  if (fd_ >= 0 && writeError_.load(std::memory_order_relaxed) == 0) {
    size_t done = 0;
    while (done < length) {
      const ssize_t n = write(fd_, data + done, length - done);
      if (n < 0) {
        if (errno == EINTR) continue;
        writeError_.store(errno);
        break;
      }
      done += static_cast<size_t>(n);
    }
    written_.fetch_add(static_cast<int64_t>(done), std::memory_order_relaxed);
  }
  if (socket_ >= 0) {
    // The ring holds whole packets; datagrams of seven are cut across calls.
    for (size_t at = 0; at + PACKET <= length; at += PACKET) {
      datagram_.insert(datagram_.end(), data + at, data + at + PACKET);
      if (datagram_.size() < PACKETS_PER_DATAGRAM * PACKET) continue;
      if (sendto(socket_, datagram_.data(), datagram_.size(), 0, reinterpret_cast<const sockaddr*>(&destination_),
                 destinationLength_) < 0 &&
          sendError_.load() == 0) {
        sendError_.store(errno);
      }
      datagram_.clear();
    }
  }
}

void StreamOutput::Finish() {
  if (writer_.joinable()) {
    {
      std::lock_guard<std::mutex> hold(wakeLock_);
      finishing_.store(true);
    }
    wake_.notify_one();
    writer_.join();
  }
  if (socket_ >= 0) {
    close(socket_);
    socket_ = -1;
  }
}

}  // namespace zfn::tools
