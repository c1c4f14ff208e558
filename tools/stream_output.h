#pragma once
// The receive command's output side: the library's callback copies each call's packets into a
// ring of the tool and returns at once; a writer thread of the tool takes them from there to the
// file, the pipe and the UDP socket, and shows them to the service reader. A reader that falls
// behind by more than the ring holds loses whole callback calls, which are counted, never hidden.
#include <netinet/in.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "tools/ts_services.h"

namespace zfn::tools {

class StreamOutput {
 public:
  // About 8 MB: over 30 s of the fastest one-segment stream (64QAM 7/8, 1.79 Mbit/s).
  static constexpr size_t RING_BYTES = 348 * 24064;
  static constexpr size_t PACKETS_PER_DATAGRAM = 7;  // 1316 bytes, the usual TS over UDP

  StreamOutput() = default;
  ~StreamOutput();
  StreamOutput(const StreamOutput&) = delete;
  StreamOutput& operator=(const StreamOutput&) = delete;

  // Where the stream goes: a file descriptor (-1: none) and a UDP destination ("" none). False
  // with the reason in *error for an address that cannot be used.
  bool Start(int fd, const std::string& udp, std::string* error);
  // Called on the library's packet thread: never blocks.
  void Push(const uint8_t* data, size_t length);
  // Writes what is left in the ring and ends the writer thread.
  void Finish();

  int64_t BytesReceived() const { return received_.load(std::memory_order_relaxed); }
  int64_t BytesWritten() const { return written_.load(std::memory_order_relaxed); }
  int64_t PacketsDropped() const { return dropped_.load(std::memory_order_relaxed) / 188; }
  // errno of the first failed write (0: none); the writer stops writing to the file then.
  int WriteError() const { return writeError_.load(std::memory_order_relaxed); }
  int SendError() const { return sendError_.load(std::memory_order_relaxed); }
  const TsServiceReader& Services() const { return services_; }

 private:
  void Run();
  void Deliver(const uint8_t* data, size_t length);

  std::vector<uint8_t> ring_;
  // Free-running byte counts: the packet thread moves head_, the writer tail_.
  std::atomic<uint64_t> head_{0}, tail_{0};
  std::atomic<bool> finishing_{false};
  std::mutex wakeLock_;
  std::condition_variable wake_;
  std::atomic<int64_t> received_{0}, written_{0}, dropped_{0};
  std::atomic<int> writeError_{0}, sendError_{0};
  int fd_ = -1;
  int socket_ = -1;
  sockaddr_storage destination_{};
  socklen_t destinationLength_ = 0;
  std::vector<uint8_t> datagram_;
  TsServiceReader services_;
  std::thread writer_;
};

}  // namespace zfn::tools
