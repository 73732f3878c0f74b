#pragma once
// What the server tests share: a server process started and stopped as a user would, and
// decoding of the PNG responses they compare with the host layer's pixels.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace quorvel::serve::testing {

/// Decoded 8-bit pixels, `channels` interleaved (1 grey, 3 RGB, 4 RGBA).
struct Decoded {
  size_t width = 0, height = 0, channels = 0;
  std::vector<uint8_t> data;
};

/// Decodes a PNG as it is stored (grey stays grey, RGB stays RGB); throws on bad data.
Decoded decodePng(std::string const& bytes);

/// Peak resident memory of a process in bytes (VmHWM), 0 when it cannot be read.
size_t peakResidentBytes(pid_t pid);

/// quorvel-serve run as a child process on port 0. The constructor waits (bounded) for its
/// "listening on" line; the destructor kills it if stop() was not called.
class ServerProcess {
 public:
  ServerProcess(std::string const& binary, std::vector<std::string> const& args,
                std::chrono::seconds startTimeout = std::chrono::seconds(60));
  ~ServerProcess();
  ServerProcess(ServerProcess const&) = delete;
  ServerProcess& operator=(ServerProcess const&) = delete;

  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  /// Standard error so far (the access log, the error messages).
  std::string errors() const;
  /// Sends `signal` and waits (bounded) for the exit; returns the exit status, or -1 when it
  /// had to be killed or died of a signal.
  int stop(int signal, std::chrono::seconds timeout = std::chrono::seconds(20));

 private:
  pid_t pid_ = -1;
  int port_ = 0;
  std::string errorFile_;
};

/// Runs the binary to its end (bounded) and returns its exit status and standard error.
std::pair<int, std::string> runToEnd(std::string const& binary,
                                     std::vector<std::string> const& args,
                                     std::chrono::seconds timeout = std::chrono::seconds(60));

}  // namespace quorvel::serve::testing
