// SPDX-License-Identifier: MIT
// The state of log4cplus belongs to the process, so each test runs its part in a program of its own
// and judges what that printed to stderr.
#include "orv/Diag.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <log4cplus/appender.h>
#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/loglevel.h>
#include <log4cplus/nullappender.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "tests/orv/AllocationFaults.h"

namespace {

using Orv::Diag;
using testing::AllOf;
using testing::ExitedWithCode;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Matcher;
using testing::MatchesRegex;
using testing::Not;
using testing::StrEq;

void logLine(const std::string& text) {
  Diag::diagLogger().log(log4cplus::ERROR_LOG_LEVEL, text, "common/File.cpp", 42, "transferData");
}

/// An appender as an application would bring it: "app: <message>" on stderr.
log4cplus::SharedAppenderPtr applicationAppender() {
  log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true, true));
  appender->setLayout(std::make_unique<log4cplus::PatternLayout>("app: %m%n"));
  return appender;
}

/// How often a text stands in another.
int occurrences(const std::string& text, const std::string& part) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

MATCHER_P2(Holds, part, times, "") {
  return occurrences(arg, part) == times;
}

/// Every message once, by the stand-in appender; nothing else.
Matcher<const std::string&> onlyStandIn(const std::string& text) {
  return AllOf(Holds(text, 1), Holds("\n", 1), HasSubstr("(common/File.cpp:42 transferData)"));
}

void inChild(const std::function<void()>& body, const Matcher<const std::string&>& errorOutput) {
  // Starts this program anew: log4cplus has threads from the start, so a mere fork would hang.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        body();
        std::exit(0);
      },
      ExitedWithCode(0), errorOutput);
}

TEST(Diag, IsCalledOrvDiag) {
  EXPECT_EQ(Diag::diagLogger().getName(), "orv.diag");
}

TEST(Diag, EveryCallGivesTheSameObject) {
  EXPECT_EQ(&Diag::diagLogger(), &Diag::diagLogger());
}

TEST(Diag, AnUnconfiguredProgramPrintsWholeLinesToStderr) {
  inChild([] { logLine("Return code  -22 0x0016 - Invalid argument"); },
          MatchesRegex("[0-9]+-[0-9]+-[0-9]+ [0-9]+:[0-9]+:[0-9]+\\.[0-9]+ ERROR "
                       "Return code  -22 0x0016 - Invalid argument "
                       "\\(common/File\\.cpp:42 transferData\\)\n"));
}

TEST(Diag, NothingIsPrintedBeforeTheFirstLine) {
  inChild([] { Diag::diagLogger(); }, IsEmpty());
}

TEST(Diag, AnAppenderOfTheRootLoggerIsEnough) {
  inChild(
      [] {
        log4cplus::Logger::getRoot().addAppender(applicationAppender());
        logLine("hello");
      },
      StrEq("app: hello\n"));
}

TEST(Diag, AnAppenderOfTheParentIsEnough) {
  inChild(
      [] {
        log4cplus::Logger::getInstance("orv").addAppender(applicationAppender());
        logLine("hello");
      },
      StrEq("app: hello\n"));
}

TEST(Diag, AnAppenderOfTheLoggerItselfIsEnough) {
  inChild(
      [] {
        log4cplus::Logger::getInstance("orv.diag").addAppender(applicationAppender());
        logLine("hello");
      },
      StrEq("app: hello\n"));
}

TEST(Diag, AnAppenderBeyondALoggerThatInheritsNothingDoesNotCount) {
  inChild(
      [] {
        log4cplus::Logger::getRoot().addAppender(applicationAppender());
        log4cplus::Logger::getInstance("orv.diag").setAdditivity(false);
        logLine("hello");
      },
      onlyStandIn("hello"));
  inChild(
      [] {
        log4cplus::Logger::getRoot().addAppender(applicationAppender());
        log4cplus::Logger::getInstance("orv").setAdditivity(false);
        logLine("hello");
      },
      onlyStandIn("hello"));
}

TEST(Diag, ConfiguringAfterTheFirstLineTakesOver) {
  inChild(
      [] {
        logLine("early");
        log4cplus::Logger::getRoot().addAppender(applicationAppender());
        logLine("late");
        logLine("later");
      },
      AllOf(Holds("early", 1), Holds("late", 2), HasSubstr("\napp: late\napp: later\n")));
}

TEST(Diag, ConfiguringTheLoggerItselfAfterTheFirstLineTakesOver) {
  inChild(
      [] {
        logLine("early");
        log4cplus::Logger::getInstance("orv.diag").addAppender(applicationAppender());
        logLine("late");
      },
      AllOf(Holds("early", 1), Holds("late", 1), HasSubstr("\napp: late\n")));
}

TEST(Diag, TakingTheAppendersAwayBringsStderrBack) {
  inChild(
      [] {
        log4cplus::Logger::getRoot().addAppender(applicationAppender());
        logLine("first");
        log4cplus::Logger::getRoot().removeAllAppenders();
        logLine("second");
      },
      AllOf(HasSubstr("app: first\n"), Holds("second", 1), Not(HasSubstr("app: second")),
            Not(HasSubstr("log4cplus"))));
}

TEST(Diag, LinesAfterAShutdownOfTheLoggingLibraryAreStillPrinted) {
  inChild(
      [] {
        logLine("one");
        log4cplus::Logger::shutdown();
        logLine("two");
        log4cplus::Logger::shutdown();
        log4cplus::Logger::shutdown();
        logLine("three");
      },
      AllOf(Holds("one", 1), Holds("two", 1), Holds("three", 1), Holds("\n", 3)));
}

TEST(Diag, LinesAfterTheApplicationsInitializerAreStillPrinted) {
  inChild(
      [] {
        {
          const log4cplus::Initializer initializer;
          log4cplus::Logger::getRoot().addAppender(applicationAppender());
          logLine("during");
        }
        logLine("after");
      },
      AllOf(HasSubstr("app: during\n"), Holds("after", 1), Not(HasSubstr("app: after")),
            Not(HasSubstr("log4cplus"))));
}

TEST(Diag, LinesBeforeTheApplicationsInitializerDoNoHarm) {
  inChild(
      [] {
        logLine("before");
        {
          const log4cplus::Initializer initializer;
          log4cplus::BasicConfigurator::doConfigure();
          log4cplus::Logger::getRoot().removeAllAppenders();
          log4cplus::Logger::getRoot().addAppender(applicationAppender());
          logLine("during");
        }
        logLine("after");
      },
      AllOf(Holds("before", 1), Holds("during", 1), HasSubstr("app: during\n"), Holds("after", 1)));
}

/// Logs when static objects are destroyed.
struct LogsInItsDestructor {
  LogsInItsDestructor() = default;
  LogsInItsDestructor(const LogsInItsDestructor&) = delete;
  LogsInItsDestructor& operator=(const LogsInItsDestructor&) = delete;
  ~LogsInItsDestructor() { logLine("goodbye"); }
};

TEST(Diag, DestructorsOfStaticObjectsMayLog) {
  inChild([] { static const LogsInItsDestructor object; }, onlyStandIn("goodbye"));
}

TEST(Diag, DestructorsOfStaticObjectsMayLogAfterTheInitializerIsGone) {
  inChild(
      [] {
        static const LogsInItsDestructor object;
        const log4cplus::Initializer initializer;
        logLine("hello");
      },
      AllOf(Holds("hello", 1), Holds("goodbye", 1), Holds("\n", 2)));
}

TEST(Diag, TheLevelOfTheLoggerIsTheApplications) {
  inChild(
      [] {
        log4cplus::Logger::getInstance("orv.diag").setLogLevel(log4cplus::OFF_LOG_LEVEL);
        logLine("hello");
      },
      IsEmpty());
}

TEST(Diag, ANullAppenderSilencesTheLog) {
  inChild(
      [] {
        log4cplus::Logger::getRoot().addAppender(
            log4cplus::SharedAppenderPtr(new log4cplus::NullAppender));
        logLine("hello");
      },
      IsEmpty());
}

TEST(Diag, TheLoggerComesBackAlsoWhenMemoryRunsOut) {
  inChild(
      [] {
        log4cplus::Logger* const logger = &Diag::diagLogger();
        for (int n = 1; n < 100; ++n) {
          const AllocationFault fault(n);
          if (&Diag::diagLogger() != logger) {
            std::_Exit(1);
          }
          if (!fault.hit()) {
            std::_Exit(n > 1 ? 0 : 2);
          }
        }
        std::_Exit(3);
      },
      IsEmpty());
}

TEST(Diag, AFirstUseThatRanOutOfMemoryCanBeRepeated) {
  inChild(
      [] {
        int failures = 0;
        for (int n = 1; n < 1000; ++n) {
          const AllocationFault fault(n);
          try {
            Diag::diagLogger();
            break;
          } catch (const std::bad_alloc&) {
            ++failures;
          }
        }
        if (failures == 0) {
          std::_Exit(1);
        }
        logLine("hello");
      },
      onlyStandIn("hello"));
}

void hammer(int threadCount, int lines) {
  std::atomic<int> waiting{threadCount};
  std::vector<std::thread> threads;
  for (int i = 0; i < threadCount; ++i) {
    threads.emplace_back([&waiting, i, lines] {
      --waiting;
      while (waiting > 0) {
      }
      for (int line = 0; line < lines; ++line) {
        logLine("line " + std::to_string(i) + "." + std::to_string(line) + ";");
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(Diag, TheFirstUseMayHappenInSeveralThreads) {
  for (int round = 0; round < 10; ++round) {
    inChild([] { hammer(4, 3); },
            AllOf(Holds("\n", 12), Holds("line 0.0;", 1), Holds("line 1.1;", 1),
                  Holds("line 2.2;", 1), Holds("line 3.2;", 1), Not(HasSubstr("log4cplus"))));
  }
}

TEST(Diag, ThreadsMayLogWhileTheApplicationConfigures) {
  inChild(
      [] {
        std::atomic<bool> done{false};
        std::thread application([&done] {
          const log4cplus::SharedAppenderPtr appender(new log4cplus::NullAppender);
          do {
            log4cplus::Logger::getRoot().addAppender(appender);
            std::this_thread::yield();
          } while (!done);
        });
        hammer(3, 50);
        done = true;
        application.join();
        logLine("silence");
      },
      AllOf(Not(HasSubstr("log4cplus")), Not(HasSubstr("silence"))));
}

/// An appender that reports through the same log, as one that shows errors on a SPI display might.
class ReentrantAppender : public log4cplus::Appender {
 public:
  ~ReentrantAppender() override { destructorImpl(); }
  void close() override { closed = true; }

 protected:
  void append(const log4cplus::spi::InternalLoggingEvent&) override {
    Diag::diagLogger();
    ++lines;
  }

 public:
  static inline std::atomic<int> lines{0};
};

TEST(Diag, AnAppenderMayAskForTheLogger) {
  inChild(
      [] {
        log4cplus::Logger::getRoot().addAppender(
            log4cplus::SharedAppenderPtr(new ReentrantAppender));
        hammer(4, 200);
        if (ReentrantAppender::lines != 800) {
          std::_Exit(1);
        }
      },
      IsEmpty());
}

}  // namespace
