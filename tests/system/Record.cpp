// SPDX-License-Identifier: MIT
#include "tests/system/Record.h"

#include <log4cplus/appender.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "orv/Diag.h"

namespace checks {
namespace {

/// Keeps what the library logs: all but the time and the number of the line in the source.
class LogLines : public log4cplus::Appender {
 public:
  ~LogLines() override { destructorImpl(); }
  void close() override {}
  std::vector<std::string> take() { return std::exchange(lines_, {}); }

 protected:
  void append(const log4cplus::spi::InternalLoggingEvent& event) override {
    lines_.push_back("log " + event.getFunction() + ": " + event.getMessage() + " [" +
                     log4cplus::getLogLevelManager().toString(event.getLogLevel()) + " " +
                     event.getFile() + "]");
  }

 private:
  std::vector<std::string> lines_;
};

LogLines& logLines() {
  static LogLines* const lines = [] {
    auto* const made = new LogLines;
    Orv::Diag::diagLogger().addAppender(log4cplus::SharedAppenderPtr(made));
    return made;
  }();
  return *lines;
}

/// Takes stderr away from the process while it lives.
class StderrLines {
 public:
  StderrLines() : file_(memfd_create("stderr", MFD_CLOEXEC)), kept_(dup(STDERR_FILENO)) {
    std::fflush(stderr);
    if (file_ < 0 || kept_ < 0 || dup2(file_, STDERR_FILENO) < 0) {
      throw std::runtime_error("can't redirect stderr");
    }
  }
  StderrLines(const StderrLines&) = delete;
  StderrLines& operator=(const StderrLines&) = delete;
  ~StderrLines() {
    std::fflush(stderr);
    dup2(kept_, STDERR_FILENO);
    ::close(kept_);
    ::close(file_);
  }

  std::vector<std::string> lines() const {
    std::fflush(stderr);
    constexpr size_t kEnough = 4096;
    std::string text(kEnough, '\0');
    const ssize_t length = pread(file_, text.data(), text.size(), 0);
    text.resize(length < 0 ? 0 : static_cast<size_t>(length));
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
      lines.push_back(line);
    }
    return lines;
  }

 private:
  int file_;
  int kept_;
};

}  // namespace

void Record::note(const std::string& name, const std::string& seen) {
  if (!names_.insert(name).second) {
    throw std::logic_error("two checks are called \"" + name + "\"");
  }
  std::cout << section_ << ": " << name << " => " << seen << std::endl;
}

void Record::run(const std::string& name, const std::function<TErrCode()>& operation) {
  note(name, outcome(operation));
}

std::string outcome(const std::function<TErrCode()>& operation) {
  logLines().take();
  std::string text;
  {
    const StderrLines printed;
    text = std::to_string(operation());
    for (const std::string& line : printed.lines()) {
      text += "; " + line;
    }
  }
  for (const std::string& line : logLines().take()) {
    text += "; " + line;
  }
  return text;
}

std::string hex(const std::vector<uint8_t>& bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (const uint8_t byte : bytes) {
    text += text.empty() ? "" : " ";
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 0xFU];
  }
  return text;
}

}  // namespace checks
