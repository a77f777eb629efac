// SPDX-License-Identifier: MIT
#include "tool/Records.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cmath>
#include <sstream>
#include <vector>

using tool::Column;
using tool::Format;
using tool::RecordWriter;
using tool::Value;

namespace {

constexpr Column kColumns[] = {
    {.name = "reading", .inText = false},
    {.name = "code", .textWidth = 4},
    {.name = "volts", .unit = "V", .textWidth = 7, .textDecimals = 4, .dataDecimals = 6},
};

constexpr Column kTextColumn[] = {{.name = "id"}};

std::string written(Format format) {
  std::ostringstream out;
  RecordWriter writer(out, format, "mcp3201", kColumns);
  writer.write({int64_t{1}, int64_t{7}, 0.00564});
  writer.write({int64_t{2}, int64_t{4095}, 10.25});
  return out.str();
}

/// Takes a few characters, then nothing more, as a full disk does.
class FullBuffer : public std::stringbuf {
 protected:
  std::streamsize xsputn(const char* /*text*/, std::streamsize /*size*/) override {
    errno = ENOSPC;
    return 0;
  }
  int_type overflow(int_type /*character*/) override { return traits_type::eof(); }
};

/// Counts how often it is flushed.
class CountingBuffer : public std::stringbuf {
 public:
  int flushes = 0;

 protected:
  int sync() override {
    ++flushes;
    return 0;
  }
};

TEST(Records, TextIsAlignedWithUnits) {
  EXPECT_EQ(written(Format::Text),
            "code    7   0.0056 V\n"
            "code 4095  10.2500 V\n");
}

TEST(Records, CsvHasOneHeaderThenRows) {
  EXPECT_EQ(written(Format::Csv),
            "reading,code,volts\n"
            "1,7,0.005640\n"
            "2,4095,10.250000\n");
}

TEST(Records, JsonIsOneObjectPerLine) {
  EXPECT_EQ(written(Format::Json),
            "{\"chip\":\"mcp3201\",\"reading\":1,\"code\":7,\"volts\":0.005640}\n"
            "{\"chip\":\"mcp3201\",\"reading\":2,\"code\":4095,\"volts\":10.250000}\n");
}

TEST(Records, CsvQuotesWhatWouldBreakARow) {
  EXPECT_EQ(tool::csvLine(kTextColumn, std::vector<Value>{std::string("a,b")}), "\"a,b\"");
  EXPECT_EQ(tool::csvLine(kTextColumn, std::vector<Value>{std::string("5\"")}), "\"5\"\"\"");
  EXPECT_EQ(tool::csvLine(kTextColumn, std::vector<Value>{std::string("plain")}), "plain");
}

TEST(Records, JsonEscapesStringsAndHasNoNotANumber) {
  EXPECT_EQ(tool::jsonLine("x", kTextColumn, std::vector<Value>{std::string("a\"\\\n")}),
            "{\"chip\":\"x\",\"id\":\"a\\\"\\\\\\u000a\"}");
  EXPECT_EQ(tool::jsonLine("x", kTextColumn, std::vector<Value>{std::nan("")}),
            "{\"chip\":\"x\",\"id\":null}");
}

TEST(Records, AColumnCanBeForReadersOrForDataOnly) {
  constexpr Column kBoth[] = {{.name = "inputs", .inData = false},
                              {.name = "inputs", .inText = false},
                              {.name = "high", .inData = false},
                              {.name = "last"}};
  const std::vector<Value> values = {std::string("0xff"), int64_t{255}, std::string("all"),
                                     uint64_t{18446744073709551615U}};
  EXPECT_EQ(tool::textLine(kBoth, values), "inputs 0xff  high all  last 18446744073709551615");
  EXPECT_EQ(tool::csvHeader(kBoth), "inputs,last");
  EXPECT_EQ(tool::csvLine(kBoth, values), "255,18446744073709551615");
  EXPECT_EQ(tool::jsonLine("x", kBoth, values),
            "{\"chip\":\"x\",\"inputs\":255,\"last\":18446744073709551615}");
}

TEST(Records, EveryLineIsFlushed) {
  CountingBuffer buffer;
  std::ostream out(&buffer);
  RecordWriter writer(out, Format::Csv, "mcp3201", kColumns);
  writer.write({int64_t{1}, int64_t{7}, 0.5});
  EXPECT_EQ(buffer.flushes, 1);
  writer.write({int64_t{2}, int64_t{7}, 0.5});
  EXPECT_EQ(buffer.flushes, 2);
}

TEST(Records, AWriteThatFailsThrowsWithTheSystemsReason) {
  FullBuffer buffer;
  std::ostream out(&buffer);
  RecordWriter writer(out, Format::Text, "mcp3201", kColumns);
  try {
    writer.write({int64_t{1}, int64_t{7}, 0.5});
    FAIL() << "nothing thrown";
  } catch (const tool::OutputError& error) {
    EXPECT_EQ(error.errorNumber(), ENOSPC);
    EXPECT_STREQ(error.what(), "can't write the output: No space left on device");
  }
}

}  // namespace
