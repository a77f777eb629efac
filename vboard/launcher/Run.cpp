// SPDX-License-Identifier: MIT
#include "vboard/launcher/Run.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "vboard/launcher/Session.h"

namespace vboard::launcher {

namespace {

constexpr int kCannotStart = 126;
constexpr int kKilled = 128;

volatile sig_atomic_t child = 0;

void handOn(int signal) {
  if (child > 0) {
    ::kill(static_cast<pid_t>(child), signal);
  }
}

/// The launcher's own handling of signals while a program runs.
class Signals {
 public:
  Signals() {
    set(SIGINT, SIG_IGN, 0);
    set(SIGQUIT, SIG_IGN, 1);
    set(SIGTERM, &handOn, 2);
    set(SIGHUP, &handOn, 3);
  }
  ~Signals() { restore(); }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  /// What the program inherits, too.
  void restore() {
    for (const auto& saved : saved_) {
      ::sigaction(saved.signal, &saved.action, nullptr);
    }
  }

 private:
  struct Saved {
    int signal;
    struct sigaction action;
  };

  void set(int signal, void (*handler)(int), int slot) {
    struct sigaction action {};
    action.sa_handler = handler;
    saved_[slot].signal = signal;
    ::sigaction(signal, &action, &saved_[slot].action);
    // What nohup and the like had ignored stays so.
    if (saved_[slot].action.sa_handler == SIG_IGN) {
      ::sigaction(signal, &saved_[slot].action, nullptr);
    }
  }

  Saved saved_[4];
};

void setEnvironment(const RunOptions& options) {
  std::string settings;
  for (const std::string& setting : options.board.settings) {
    settings += setting + "\n";
  }
  const char* before = std::getenv("LD_PRELOAD");
  const std::string preload = before != nullptr && *before != '\0'
                                  ? std::string(before) + ":" + options.library
                                  : options.library;
  ::setenv("LD_PRELOAD", preload.c_str(), 1);
  ::setenv(kFileVariable, options.board.file.c_str(), 1);
  ::setenv(kTextVariable, options.board.text.c_str(), 1);
  ::setenv(kSettingsVariable, settings.c_str(), 1);
  ::setenv(
      kOptionsVariable,
      (std::string(options.realTime ? "realtime " : "") + (options.trace ? "trace" : "")).c_str(),
      1);
  ::setenv(kReportsVariable, options.reports.c_str(), 1);
}

/// In the child: becomes the program, or tells through the pipe why it can't.
[[noreturn]] void become(const RunOptions& options, int pipe) {
  setEnvironment(options);
  std::vector<char*> arguments;
  for (const std::string& argument : options.arguments) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  ::execv(options.path.c_str(), arguments.data());
  const int error = errno;
  [[maybe_unused]] const ssize_t written = ::write(pipe, &error, sizeof error);
  ::_exit(kCannotStart);
}

}  // namespace

RunResult run(const RunOptions& options) {
  int pipe[2];
  if (::pipe2(pipe, O_CLOEXEC) != 0) {
    return {kCannotStart, 0, std::string("pipe: ") + std::strerror(errno)};
  }
  Signals signals;
  const pid_t process = ::fork();
  if (process == 0) {
    signals.restore();
    become(options, pipe[1]);
  }
  ::close(pipe[1]);
  child = process;
  int error = process < 0 ? errno : 0;
  ssize_t told = -1;
  while (process > 0 && (told = ::read(pipe[0], &error, sizeof error)) < 0 && errno == EINTR) {
  }
  const bool failed = process < 0 || told == static_cast<ssize_t>(sizeof error);
  ::close(pipe[0]);
  int status = 0;
  while (process > 0 && ::waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  child = 0;
  if (failed) {
    return {kCannotStart, 0, options.path + ": " + std::strerror(error)};
  }
  if (WIFSIGNALED(status)) {
    return {kKilled + WTERMSIG(status), WTERMSIG(status), ""};
  }
  return {WEXITSTATUS(status), 0, ""};
}

}  // namespace vboard::launcher
