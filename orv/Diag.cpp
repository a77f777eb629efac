// SPDX-License-Identifier: MIT
#include "orv/Diag.h"

#include <log4cplus/appender.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/layout.h>

#include <algorithm>
#include <memory>

#include "orv/Immortal_p.h"

namespace Orv {
namespace {

constexpr const char* kAppenderName = "orv.diag.stderr";
constexpr const char* kPattern = "%D{%Y-%m-%d %H:%M:%S.%q} %-5p %m (%l %M)%n";

/// The stand-in appender. A log4cplus shutdown closes every appender for good; this one has
/// nothing to close, so that it can be attached again afterwards.
class CStderrAppender : public log4cplus::ConsoleAppender {
 public:
  CStderrAppender() : ConsoleAppender(true, true) {
    setName(kAppenderName);
    setLayout(std::make_unique<log4cplus::PatternLayout>(kPattern));
  }
  void close() override {}
};

/// No log4cplus::Initializer on purpose: the library initialises itself when it is loaded, and a
/// second generation of Initializer objects crashes after the application's last one is gone.
struct stDiag {
  // "orv" is made first: the parent of "orv.diag" then never changes under a running log call.
  log4cplus::Logger Parent = log4cplus::Logger::getInstance("orv");
  log4cplus::Logger Logger = log4cplus::Logger::getInstance("orv.diag");
  log4cplus::Logger Root = log4cplus::Logger::getRoot();
  log4cplus::SharedAppenderPtr StandIn{new CStderrAppender};

  /// No lock here: an appender may itself come back into diagLogger() while log4cplus holds its
  /// locks. Adding twice and removing twice is harmless, so racing callers end up in one state.
  void chooseAppender();
  bool isConfigured(bool& standInAttached);
};

void stDiag::chooseAppender() {
  bool standInAttached = false;
  const bool configured = isConfigured(standInAttached);
  if (configured && standInAttached) {
    Logger.removeAppender(StandIn);
  } else if (!configured && !standInAttached) {
    Logger.addAppender(StandIn);
  }
}

bool stDiag::isConfigured(bool& standInAttached) {
  const log4cplus::SharedAppenderPtrList own = Logger.getAllAppenders();
  const auto standIns = std::count(own.begin(), own.end(), StandIn);
  standInAttached = standIns > 0;
  if (static_cast<std::size_t>(standIns) < own.size()) {
    return true;
  }
  if (!Logger.getAdditivity()) {
    return false;
  }
  if (!Parent.getAllAppenders().empty()) {
    return true;
  }
  return Parent.getAdditivity() && !Root.getAllAppenders().empty();
}

}  // namespace

log4cplus::Logger& Diag::diagLogger() {
  stDiag& diag = immortal<stDiag>();
  try {
    diag.chooseAppender();
  } catch (...) {
    // Out of memory: leave the appenders as they are, a log line is not worth a crash.
  }
  return diag.Logger;
}

}  // namespace Orv
