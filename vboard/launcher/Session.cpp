// SPDX-License-Identifier: MIT
#include "vboard/launcher/Session.h"

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "vboard/kernel/Kernel.h"
#include "vboard/kernel/Running.h"
#include "vboard/launcher/BoardFile.h"
#include "vboard/launcher/Report.h"
#include "vboard/launcher/Trace.h"

namespace vboard::launcher {

namespace {

/// The board of a process that `varnel-board` started. It is never destroyed: destructors of the
/// program's own objects still use its nodes, and the report comes after all of them.
struct Session {
  std::unique_ptr<Board> board;
  std::unique_ptr<Kernel> kernel;
  std::unique_ptr<Tracer> tracer;
  std::string reports;
  pid_t process = 0;
  unsigned image = 0;
  bool touched = false;
};

Session* session = nullptr;

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

bool hasWord(std::string_view words, std::string_view word) {
  return words.find(word) != std::string_view::npos;
}

std::string reportStem() {
  return session->reports + "/" + std::to_string(session->process) + "-" +
         std::to_string(session->image);
}

void writeFile(const std::string& path, std::string_view text) {
  const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (file < 0) {
    return;
  }
  while (!text.empty()) {
    const ssize_t written = ::write(file, text.data(), text.size());
    if (written <= 0) {
      break;
    }
    text.remove_prefix(static_cast<size_t>(written));
  }
  ::close(file);
}

/// The first call on a node: from here on a report is owed.
void touched() {
  const int saved = errno;
  if (session != nullptr && session->process == getpid()) {
    session->touched = true;
    writeFile(reportStem() + ".begun", program_invocation_short_name);
  }
  errno = saved;
}

/// A forked child goes on with a copy of the board, and owes a report of its own once it touches
/// it.
void becomeChild() {
  session->process = getpid();
  session->touched = false;
  kernel::onFirstCall(&touched);
}

/// Another thread may be inside a call on a node that never ends.
bool lockWithin(std::recursive_mutex& mutex, int attempts) {
  for (int attempt = 0; attempt < attempts; ++attempt) {
    if (mutex.try_lock()) {
      return true;
    }
    sched_yield();
  }
  return false;
}

void reportAtExit(int /*status*/, void* /*unused*/) {
  reportBeforeLeaving();
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> all;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    all.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return all;
}

/// Images of one process id: what execve(2) left behind counts on in the file names.
unsigned nextImage(const std::string& reports) {
  unsigned image = 0;
  const std::string stem = reports + "/" + std::to_string(getpid()) + "-";
  while (::access((stem + std::to_string(image) + ".begun").c_str(), F_OK) == 0) {
    ++image;
  }
  return image;
}

void startFaults(Kernel& kernel, const std::vector<CallFault>& faults) {
  for (const CallFault& fault : faults) {
    if (fault.nth == 0) {
      kernel.failCallsFromNow(fault.call, fault.error, fault.node);
    } else {
      kernel.failCall(fault.call, fault.nth, fault.error, fault.node);
    }
  }
}

/// Runs in every process of a run, before its main. The launcher checked the description, so a
/// mistake in it means that somebody changed the environment.
__attribute__((constructor)) void start() {
  const char* text = std::getenv(kTextVariable);
  if (text == nullptr || kernel::running()) {
    return;
  }
  LoadedBoard loaded =
      loadBoard({variable(kFileVariable), text, lines(variable(kSettingsVariable))});
  if (loaded.board == nullptr) {
    for (const BoardProblem& problem : loaded.problems) {
      std::fprintf(stderr, "%s\n", problem.message().c_str());
    }
    std::fprintf(stderr, "varnel-board: %s has no board to run on\n",
                 program_invocation_short_name);
    ::_exit(2);
  }
  const std::string options = variable(kOptionsVariable);
  const bool realTime = hasWord(options, "realtime");
  auto* started = new Session;
  started->board = std::move(loaded.board);
  started->reports = variable(kReportsVariable);
  started->process = getpid();
  started->image = nextImage(started->reports);
  started->kernel = std::make_unique<Kernel>(
      *started->board, KernelOptions{.virtualTime = !realTime, .realTime = realTime});
  startFaults(*started->kernel, loaded.faults);
  if (hasWord(options, "trace")) {
    started->tracer = std::make_unique<Tracer>();
    started->board->addObserver(*started->tracer);
  }
  session = started;
  kernel::onFirstCall(&touched);
  pthread_atfork(nullptr, nullptr, &becomeChild);
  // Unlike atexit from a library, this runs after every destructor of the process.
  on_exit(&reportAtExit, nullptr);
  at_quick_exit(&reportBeforeLeaving);
}

}  // namespace

void reportBeforeLeaving() noexcept {
  // A child of vfork, or of a clone(2) that told nobody, shares this memory or doesn't own it.
  if (session == nullptr || !session->touched || session->process != getpid()) {
    return;
  }
  const int saved = errno;
  Board& board = *session->board;
  if (lockWithin(board.mutex(), 100000)) {
    const std::string stem = reportStem();
    writeFile(stem + ".part", reportJson(board, program_invocation_short_name, session->process));
    std::rename((stem + ".part").c_str(), (stem + ".json").c_str());
    board.mutex().unlock();
  }
  errno = saved;
}

}  // namespace vboard::launcher
