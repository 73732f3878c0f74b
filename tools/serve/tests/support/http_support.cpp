#include "support/http_support.hpp"

#include <fcntl.h>
#include <png.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace quorvel::serve::testing {
namespace {

using Clock = std::chrono::steady_clock;

std::string tempName(char const* what) {
  static int counter = 0;
  return "/tmp/quorvel-serve-test-" + std::to_string(getpid()) + "-" + what + "-" +
         std::to_string(counter++) + ".txt";
}

/// Forks and execs `binary` with stdout to `outFd` (or /dev/null) and stderr to `errFile`.
pid_t spawn(std::string const& binary, std::vector<std::string> const& args, int outFd,
            std::string const& errFile) {
  std::vector<std::string> all{binary};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& a : all) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t const pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    int const err = open(errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int const out = outFd >= 0 ? outFd : open("/dev/null", O_WRONLY);
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    execv(binary.c_str(), argv.data());
    _exit(127);
  }
  return pid;
}

/// Waits for `pid` until `deadline`; the exit status, or -1 (killed, or still running).
int waitUntil(pid_t pid, Clock::time_point deadline) {
  while (Clock::now() < deadline) {
    int status = 0;
    pid_t const done = waitpid(pid, &status, WNOHANG);
    if (done == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return -1;
}

std::string slurp(std::string const& file) {
  std::ifstream in(file);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace

Decoded decodePng(std::string const& bytes) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&image, bytes.data(), bytes.size())) {
    throw std::runtime_error(std::string("not a PNG: ") + image.message);
  }
  Decoded out;
  out.width = image.width;
  out.height = image.height;
  bool const grey = (image.format & PNG_FORMAT_FLAG_COLOR) == 0;
  image.format = grey ? PNG_FORMAT_GRAY : PNG_FORMAT_RGB;
  out.channels = grey ? 1 : 3;
  out.data.resize(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, out.data.data(), 0, nullptr)) {
    throw std::runtime_error(std::string("bad PNG: ") + image.message);
  }
  return out;
}

size_t peakResidentBytes(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::stoul(line.substr(6)) * 1024;
  }
  return 0;
}

ServerProcess::ServerProcess(std::string const& binary, std::vector<std::string> const& args,
                             std::chrono::seconds startTimeout)
    : errorFile_(tempName("stderr")) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) throw std::runtime_error("pipe failed");
  std::vector<std::string> all = args;
  all.insert(all.end(), {"--port", "0"});
  pid_ = spawn(binary, all, pipeFds[1], errorFile_);
  close(pipeFds[1]);
  // Read stdout until the "listening on" line, within the time bound.
  std::string out;
  auto const deadline = Clock::now() + startTimeout;
  while (port_ == 0 && Clock::now() < deadline) {
    pollfd p{pipeFds[0], POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    char buffer[256];
    ssize_t const n = read(pipeFds[0], buffer, sizeof buffer);
    if (n <= 0) break;
    out.append(buffer, size_t(n));
    size_t const at = out.find("listening on http://");
    size_t const end = at == std::string::npos ? at : out.find('\n', at);
    if (end != std::string::npos) {
      std::string const line = out.substr(at, end - at);
      port_ = std::stoi(line.substr(line.rfind(':') + 1));
    }
  }
  close(pipeFds[0]);
  if (port_ == 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
    throw std::runtime_error("the server did not start: " + slurp(errorFile_));
  }
}

ServerProcess::~ServerProcess() {
  if (pid_ > 0) stop(SIGKILL, std::chrono::seconds(5));
  std::remove(errorFile_.c_str());
}

std::string ServerProcess::errors() const { return slurp(errorFile_); }

int ServerProcess::stop(int signal, std::chrono::seconds timeout) {
  if (pid_ <= 0) return -1;
  kill(pid_, signal);
  int const status = waitUntil(pid_, Clock::now() + timeout);
  pid_ = -1;
  return status;
}

std::pair<int, std::string> runToEnd(std::string const& binary,
                                     std::vector<std::string> const& args,
                                     std::chrono::seconds timeout) {
  std::string const err = tempName("run");
  pid_t const pid = spawn(binary, args, -1, err);
  int const status = waitUntil(pid, Clock::now() + timeout);
  std::string text = slurp(err);
  std::remove(err.c_str());
  return {status, text};
}

}  // namespace quorvel::serve::testing
