// SPDX-License-Identifier: MIT
// A program under test for `varnel-board`: reads the converter, then ends in the way its argument
// names.
#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

int node = -1;

int transfer(uint32_t speed) {
  unsigned char sent[2] = {0x12, 0x34};
  unsigned char received[2] = {};
  spi_ioc_transfer message{};
  message.tx_buf = reinterpret_cast<uintptr_t>(sent);
  message.rx_buf = reinterpret_cast<uintptr_t>(received);
  message.len = sizeof sent;
  message.speed_hz = speed;
  return ioctl(node, SPI_IOC_MESSAGE(1), &message);
}

/// Touches the node after main and every handler registered there.
struct Late {
  ~Late() {
    if (late) {
      transfer(100000);
    }
  }
  bool late = false;
} atEnd;

int inChild(int (*work)()) {
  const pid_t child = fork();
  if (child == 0) {
    std::exit(work());
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WEXITSTATUS(status);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string how = argc > 1 ? argv[1] : "return";
  node = open("/dev/spidev1.0", O_RDWR);
  if (node < 0 || transfer(how == "fast" ? 20000000 : 500000) < 0) {
    std::perror("client");
    return 1;
  }
  if (how == "_exit") {
    _exit(5);
  } else if (how == "_Exit") {
    _Exit(5);
  } else if (how == "quick_exit") {
    quick_exit(5);
  } else if (how == "exec") {
    execlp("sh", "sh", "-c", "exit 6", static_cast<char*>(nullptr));
  } else if (how == "execfail") {
    execl("/no/such/program", "x", static_cast<char*>(nullptr));
    transfer(500000);
  } else if (how == "kill") {
    raise(SIGKILL);
  } else if (how == "abort") {
    std::abort();
  } else if (how == "fork") {
    return inChild([] { return transfer(500000) == 2 ? 0 : 1; });
  } else if (how == "forkidle") {
    return inChild([] { return 0; });
  } else if (how == "vfork") {
    const pid_t child = vfork();
    if (child == 0) {
      _exit(0);
    }
    waitpid(child, nullptr, 0);
  } else if (how == "late") {
    atEnd.late = true;
  } else if (how == "thread") {
    std::thread([] { transfer(500000); }).join();
  } else if (how == "sleep") {
    sleep(1000);
  }
  return 0;
}
