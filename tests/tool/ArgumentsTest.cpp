// SPDX-License-Identifier: MIT
// Everything about the command line that needs no board.
#include <gmock/gmock.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <set>

#include "tests/tool/ToolRun.h"
#include "tool/chips/Mcp3201.h"

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

/// Every help page.
const std::string kPages[] = {
    "--help",
    "-h",
    "mcp3201 --help",
    "mcp3201 read --help",
    "hc595 --help",
    "hc595 write --help",
    "lv165a --help",
    "lv165a read --help",
    "address --help",
    "address write --help",
    "l6470 --help",
    "powerstep01 --help",
    "icmd --help",
    "icmd read --help",
    "icmd watch --help",
    "icmd clear --help",
    "icmd config --help",
    "at25640b --help",
    "at25640b status --help",
    "at25640b read --help",
    "at25640b write --help",
    "at25640b dump --help",
    "at25640b load --help",
    "at25640b verify --help",
    "mcp4822 --help",
    "mcp4822 set --help",
    "tlc5947 --help",
    "tlc5947 set --help",
    "ad529x --help",
    "ad529x set --help",
    "tlc5947 all --help",
    "tlc5947 blank --help",
    "tlc5947 show --help",
    "ad529x get --help",
    "ad529x store --help",
    "ad529x memory --help",
    "ad529x control --help",
    "ads1248 --help",
    "ads1248 read --help",
    "ads1248 rate --help",
    "ads1248 gain --help",
    "ads1256 --help",
    "ads1256 read --help",
};

/// The words of both stepper controllers.
const char* const kStepperWords[] = {"run",      "move",  "goto", "goto-dir",  "home",
                                     "mark",     "stop",  "hiz",  "reset-pos", "status",
                                     "position", "speed", "get",  "set",       "reset"};

std::vector<std::string> pages() {
  std::vector<std::string> all(std::begin(kPages), std::end(kPages));
  for (const char* word : kStepperWords) {
    for (const char* chip : {"l6470 ", "powerstep01 "}) {
      all.push_back(std::string(chip) + word + " --help");
    }
  }
  return all;
}

struct BadLine {
  const char* line;
  const char* message;
};

class BadArguments : public testing::TestWithParam<BadLine> {};

TEST_P(BadArguments, EndWithStatusTwoAndOneClearText) {
  const ToolRun run = runLine(GetParam().line);
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, GetParam().message);
  EXPECT_THAT(run.out, IsEmpty());
  EXPECT_THAT(run.systemLines, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Tool, BadArguments,
    testing::Values(
        BadLine{"",
                "varnel: a subcommand is missing: mcp3201, ads1248, ads1256, hc595, lv165a, l6470, "
                "powerstep01, mcp4822, tlc5947, ad529x, icmd, at25640b, address\n  try: varnel "
                "--help\n"},
        BadLine{"mcp3201", "varnel: a subcommand is missing: read\n  try: varnel mcp3201 --help\n"},
        BadLine{"bogus",
                "varnel: 'bogus' is no subcommand here; subcommands: mcp3201, ads1248, ads1256, "
                "hc595, lv165a, l6470, "
                "powerstep01, mcp4822, tlc5947, ad529x, icmd, at25640b, address\n"
                "  try: varnel --help\n"},
        BadLine{"mcp3201 raed",
                "varnel: 'raed' is no subcommand here; subcommands: read\n"
                "  try: varnel mcp3201 --help\n"},
        BadLine{"mcp3201 --bogus",
                "varnel: '--bogus' is no option here; subcommands: read\n"
                "  try: varnel mcp3201 --help\n"},
        BadLine{"mcp3201 read --speed 0",
                "varnel: --speed: '0' is not a speed in kHz from 1 to 65535\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"--speed 65536 mcp3201 read",
                "varnel: --speed: '65536' is not a speed in kHz from 1 to 65535\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --speed 5x",
                "varnel: --speed: '5x' is not a speed in kHz from 1 to 65535\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --speed -1",
                "varnel: --speed: '-1' is not a speed in kHz from 1 to 65535\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --cs gpiochip1",
                "varnel: --cs: 'gpiochip1' is a chip: name one of its lines, e.g. gpiochip1:15\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --cs-active-low",
                "varnel: --cs-active-low requires --cs\n  try: varnel mcp3201 read --help\n"},
        BadLine{
            "mcp3201 read --vref 0",
            "varnel: --vref: '0' is not a voltage above 0\n  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --vref 3,3",
                "varnel: --vref: '3,3' is not a voltage above 0\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --vref nan",
                "varnel: --vref: 'nan' is not a voltage above 0\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --count -1",
                "varnel: --count: '-1' is not a count from 0 to 18446744073709551615\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --interval 86400001",
                "varnel: --interval: '86400001' is not a time in ms from 0 to 86400000\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --log loud",
                "varnel: --log: 'loud' is none of off, fatal, error, warn, info, debug, trace, "
                "all\n  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --output xml",
                "varnel: --output: 'xml' is none of text, csv, json\n"
                "  try: varnel mcp3201 read --help\n"}));

INSTANTIATE_TEST_SUITE_P(
    RegistersAndExpander, BadArguments,
    testing::Values(
        BadLine{"hc595 write",
                "varnel: VALUE is required\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{"hc595 write -1",
                "varnel: VALUE: '-1' is not a whole number: decimal, 0x.. or 0b..\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{"hc595 write 0x1g",
                "varnel: VALUE: '0x1g' is not a whole number: decimal, 0x.. or 0b..\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{"hc595 write 0x",
                "varnel: VALUE: '0x' is not a whole number: decimal, 0x.. or 0b..\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{"hc595 write 0b12",
                "varnel: VALUE: '0b12' is not a whole number: decimal, 0x.. or 0b..\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{
            "hc595 write 18446744073709551616 --chain 8",
            "varnel: VALUE: '18446744073709551616' is not a whole number: decimal, 0x.. or 0b..\n"
            "  try: varnel hc595 write --help\n"},
        BadLine{"hc595 write 256",
                "varnel: VALUE: 0x100 is above 0xff, the highest value of 1 chip\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{"hc595 write 0x1000000 --chain 3 --latch 2",
                "varnel: VALUE: 0x1000000 is above 0xffffff, the highest value of 3 chips\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{"hc595 write 1 --chain 0",
                "varnel: --chain: '0' is not a number of chips from 1 to 8\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{"hc595 write 1 --chain 9",
                "varnel: --chain: '9' is not a number of chips from 1 to 8\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{"hc595 write 1 --latch gpiochip1",
                "varnel: --latch: 'gpiochip1' is a chip: name one of its lines, e.g. gpiochip1:15\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{"hc595 write 1 --latch 2 --cs 3",
                "varnel: --cs: a 74HC595 has no select line: --cs is for chips whose RCLK is wired "
                "to it, --latch for chips whose RCLK has a pin of its own\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{"hc595 write 1 --expander 22:3",
                "varnel: --expander: the 74HC595 can't be selected through an expander: it has no "
                "select line\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{"hc595 write 1 --expander 22:3:implicit",
                "varnel: --expander: the 74HC595 can't be selected through an expander: it has no "
                "select line\n"
                "  try: varnel hc595 write --help\n"},
        BadLine{"lv165a read",
                "varnel: --latch is required\n"
                "  try: varnel lv165a read --help\n"},
        BadLine{"lv165a read --latch 23 --count x",
                "varnel: --count: 'x' is not a count from 0 to 18446744073709551615\n"
                "  try: varnel lv165a read --help\n"},
        BadLine{"lv165a read --latch 23 --expander 22:3:implicit",
                "varnel: --expander: the 74LV165A can't be selected implicitly: it is loaded and "
                "read before its address is on the expander's outputs, and its select stays on\n"
                "  try: varnel lv165a read --help\n"},
        BadLine{"address write --pins 1",
                "varnel: N is required\n"
                "  try: varnel address write --help\n"},
        BadLine{"address write 1",
                "varnel: --pins is required\n"
                "  try: varnel address write --help\n"},
        BadLine{"address write x --pins 1",
                "varnel: N: 'x' is not a whole number: decimal, 0x.. or 0b..\n"
                "  try: varnel address write --help\n"},
        BadLine{"address write 8 --pins 1,2,3",
                "varnel: N: 8 is above 7, the highest address on 3 pins\n"
                "  try: varnel address write --help\n"},
        BadLine{"address write 2 --pins 1",
                "varnel: N: 2 is above 1, the highest address on 1 pin\n"
                "  try: varnel address write --help\n"},
        BadLine{
            "address write 0 --pins 1,,2",
            "varnel: --pins: a pin is a number, a line name, or CHIP:LINE such as gpiochip1:15\n"
            "  try: varnel address write --help\n"},
        BadLine{
            "address write 0 --pins 1,",
            "varnel: --pins: a pin is a number, a line name, or CHIP:LINE such as gpiochip1:15\n"
            "  try: varnel address write --help\n"},
        BadLine{"address write 0 --pins 1,2,1",
                "varnel: --pins: '1' stands there twice\n"
                "  try: varnel address write --help\n"},
        BadLine{"address write 0 --pins "
                "0,1,2,3,4,5,6,7,8,9,10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,29,"
                "30,31,32",
                "varnel: --pins: 33 pins are more than the 32 bits of an address\n"
                "  try: varnel address write --help\n"},
        BadLine{"address write 0 --pins 1 --cs 3",
                "varnel: --cs: the address decoder has no select line\n"
                "  try: varnel address write --help\n"},
        BadLine{"address write 0 --pins 1 --expander 22:3",
                "varnel: --expander: the address decoder can't be selected through an expander: it "
                "is on GPIO lines, not on the bus\n"
                "  try: varnel address write --help\n"},
        BadLine{"mcp3201 read --expander 22",
                "varnel: --expander: '22': an address must follow the latch pin, e.g. 22:3\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{
            "mcp3201 read --expander gpiochip1:15",
            "varnel: --expander: 'gpiochip1' is a chip: name one of its lines, e.g. gpiochip1:15\n"
            "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --expander 22:255",
                "varnel: --expander: '255' is not an address from 0 to 254\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --expander 22:3:sometimes",
                "varnel: --expander: 'sometimes' is not an address from 0 to 254\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --expander 22:7",
                "varnel: --expander: address 7 is the one that selects no chip; --expander-none "
                "names another for that\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --expander 22:3 --expander-none 3",
                "varnel: --expander: address 3 is the one that selects no chip; --expander-none "
                "names another for that\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --expander 22:3 --expander-none 255",
                "varnel: --expander-none: '255' is not an address from 0 to 254\n"
                "  try: varnel mcp3201 read --help\n"},
        BadLine{"mcp3201 read --expander-none 3",
                "varnel: --expander-none requires --expander\n"
                "  try: varnel mcp3201 read --help\n"}));

INSTANTIATE_TEST_SUITE_P(
    Steppers, BadArguments,
    testing::Values(
        BadLine{"powerstep01",
                "varnel: a subcommand is missing: run, move, goto, goto-dir, home, mark, stop, "
                "hiz, reset-pos, status, position, speed, get, set, reset\n"
                "  try: varnel powerstep01 --help\n"},
        BadLine{"powerstep01 run",
                "varnel: --speed is required\n"
                "  try: varnel powerstep01 run --help\n"},
        BadLine{"powerstep01 run --speed 15626",
                "varnel: --speed: '15626' is not a speed from 0 to 15625 steps/s\n"
                "  try: varnel powerstep01 run --help\n"},
        BadLine{"l6470 run --speed -1",
                "varnel: --speed: '-1' is not a speed from 0 to 15625 steps/s\n"
                "  try: varnel l6470 run --help\n"},
        BadLine{"powerstep01 run --speed nan",
                "varnel: --speed: 'nan' is not a speed from 0 to 15625 steps/s\n"
                "  try: varnel powerstep01 run --help\n"},
        BadLine{"powerstep01 run --speed 1 --direction up",
                "varnel: --direction: 'up' is none of forward, reverse\n"
                "  try: varnel powerstep01 run --help\n"},
        BadLine{"powerstep01 run --speed 1 --acceleration 14.5",
                "varnel: --acceleration: '14.5' is not an acceleration from 14.6 to 59590 "
                "steps/s2\n  try: varnel powerstep01 run --help\n"},
        BadLine{"powerstep01 run --speed 1 --max-speed 15",
                "varnel: --max-speed: '15' is not a speed from 15.3 to 15610 steps/s\n"
                "  try: varnel powerstep01 run --help\n"},
        BadLine{"powerstep01 run --speed 1 --min-speed 977",
                "varnel: --min-speed: '977' is not a speed from 0 to 976 steps/s\n"
                "  try: varnel powerstep01 run --help\n"},
        BadLine{"powerstep01 move",
                "varnel: MICROSTEPS is required\n  try: varnel powerstep01 move --help\n"},
        BadLine{"powerstep01 move -5",
                "varnel: MICROSTEPS: '-5' is not a number of microsteps from 0 to 2097151; "
                "--direction reverse moves back\n  try: varnel powerstep01 move --help\n"},
        BadLine{"powerstep01 move 5 --speed 100",
                "varnel: --speed: the motor's speed here is its register MAX_SPEED, see "
                "--max-speed; the bus clock's --speed stands before 'move'\n"
                "  try: varnel powerstep01 move --help\n"},
        BadLine{"powerstep01 goto 2097152",
                "varnel: POSITION: '2097152' is not a position from -2097152 to 2097151 "
                "microsteps\n  try: varnel powerstep01 goto --help\n"},
        BadLine{"powerstep01 goto-dir 5",
                "varnel: --direction is required\n  try: varnel powerstep01 goto-dir --help\n"},
        BadLine{"powerstep01 get acc bogus",
                "varnel: REGISTER: 'bogus' is no register: a name such as ACC, or an address from "
                "1 to 27; get without a name prints all\n  try: varnel powerstep01 get --help\n"},
        BadLine{"powerstep01 set acc",
                "varnel: VALUE is required\n  try: varnel powerstep01 set --help\n"},
        BadLine{"powerstep01 set acc x",
                "varnel: VALUE: 'x' is not a whole number: decimal, 0x.. or 0b..\n"
                "  try: varnel powerstep01 set --help\n"},
        BadLine{"powerstep01 set acc 0x1000",
                "varnel: VALUE: 0x1000 is above 0xfff, the highest value of ACC with its 12 "
                "bits\n  try: varnel powerstep01 set --help\n"},
        BadLine{"powerstep01 set acc -1",
                "varnel: VALUE: -1 is below 0, and ACC has no sign\n"
                "  try: varnel powerstep01 set --help\n"},
        BadLine{"powerstep01 set mark -2097153",
                "varnel: VALUE: -2097153 is below -2097152, the lowest value of MARK\n"
                "  try: varnel powerstep01 set --help\n"},
        BadLine{"powerstep01 set status 1",
                "varnel: REGISTER: STATUS can only be read\n"
                "  try: varnel powerstep01 set --help\n"},
        BadLine{"l6470 stop --expander 22:3:implicit",
                "varnel: --expander: the L6470 can't be selected through an expander: every byte "
                "has to be a select of its own in mode 3, and would have others around it in mode "
                "0\n  try: varnel l6470 stop --help\n"},
        BadLine{"powerstep01 stop --expander 22:3",
                "varnel: --expander: the powerSTEP01 can't be selected through an expander: every "
                "byte has to be a select of its own in mode 3, and would have others around it in "
                "mode 0\n  try: varnel powerstep01 stop --help\n"}));

INSTANTIATE_TEST_SUITE_P(
    OutputChips, BadArguments,
    testing::Values(
        BadLine{"mcp4822 set 1 --ldac 24",
                "varnel: B is required\n  try: varnel mcp4822 set --help\n"},
        BadLine{"mcp4822 set 1 2",
                "varnel: --ldac is required\n  try: varnel mcp4822 set --help\n"},
        BadLine{"mcp4822 set 1 4096 --ldac 24",
                "varnel: B: '4096' is neither a code from 0 to 4095 nor a voltage from 0V to "
                "2.0475V\n  try: varnel mcp4822 set --help\n"},
        BadLine{"mcp4822 set 3.3V 0 --ldac 24",
                "varnel: A: '3.3V' is neither a code from 0 to 4095 nor a voltage from 0V to "
                "2.0475V\n  try: varnel mcp4822 set --help\n"},
        BadLine{"mcp4822 set 1 2 --ldac gpiochip1",
                "varnel: --ldac: 'gpiochip1' is a chip: name one of its lines, e.g. gpiochip1:15\n"
                "  try: varnel mcp4822 set --help\n"},
        BadLine{"mcp4822 set 1 2 --ldac 24 --expander 22:3:implicit",
                "varnel: --expander: the MCP4822 can't be selected implicitly: each of its two "
                "words is a select\n  try: varnel mcp4822 set --help\n"},
        BadLine{"tlc5947 set --latch 22",
                "varnel: SETTING is required\n  try: varnel tlc5947 set --help\n"},
        BadLine{"tlc5947 set 0=1",
                "varnel: --latch is required\n  try: varnel tlc5947 set --help\n"},
        BadLine{"tlc5947 set 0 --latch 22",
                "varnel: SETTING: '0' is not OUTPUT=VALUE, such as 5=2048 or 0-2=4095\n"
                "  try: varnel tlc5947 set --help\n"},
        BadLine{"tlc5947 set 24=1 --latch 22",
                "varnel: SETTING: output 24 is above 23, the last one of 1 chip\n"
                "  try: varnel tlc5947 set --help\n"},
        BadLine{"tlc5947 set 40-99=1 --latch 22 --chain 4",
                "varnel: SETTING: output 99 is above 95, the last one of 4 chips\n"
                "  try: varnel tlc5947 set --help\n"},
        BadLine{"tlc5947 all 4096 --latch 22",
                "varnel: VALUE: 4096 is above 4095, the largest pulse width\n"
                "  try: varnel tlc5947 all --help\n"},
        BadLine{"tlc5947 all 1 --latch 22 --chain 65",
                "varnel: --chain: '65' is not a number of chips from 1 to 64\n"
                "  try: varnel tlc5947 all --help\n"},
        BadLine{"tlc5947 all 1 --latch 22 --hold 5",
                "varnel: --hold requires --blank\n  try: varnel tlc5947 all --help\n"},
        BadLine{"tlc5947 show", "varnel: --blank is required\n  try: varnel tlc5947 show --help\n"},
        BadLine{"tlc5947 blank --blank 23 --hold x",
                "varnel: --hold: 'x' is not a time in ms from 0 to 86400000\n"
                "  try: varnel tlc5947 blank --help\n"},
        BadLine{"tlc5947 all 1 --latch 22 --cs 25",
                "varnel: --cs: the TLC5947 has no select line\n"
                "  try: varnel tlc5947 all --help\n"},
        BadLine{"tlc5947 all 1 --latch 22 --expander 22:3",
                "varnel: --expander: the TLC5947 can't be selected through an expander: it has no "
                "select line\n  try: varnel tlc5947 all --help\n"},
        BadLine{"ad529x get", "varnel: --sync is required\n  try: varnel ad529x get --help\n"},
        BadLine{"ad529x set --sync 25",
                "varnel: POSITION is required\n  try: varnel ad529x set --help\n"},
        BadLine{"ad529x set 1024 --sync 25",
                "varnel: POSITION: 1024 is above 1023, the last position of an ad5292\n"
                "  try: varnel ad529x set --help\n"},
        BadLine{"ad529x set 256 --sync 25 --part ad5291",
                "varnel: POSITION: 256 is above 255, the last position of an ad5291\n"
                "  try: varnel ad529x set --help\n"},
        BadLine{"ad529x set 1 --sync 25 --part ad5290",
                "varnel: --part: 'ad5290' is none of ad5292, ad5291\n"
                "  try: varnel ad529x set --help\n"},
        BadLine{"ad529x control 8 --sync 25",
                "varnel: VALUE: 8 is above 7, the highest value of the bits that can be set\n"
                "  try: varnel ad529x control --help\n"},
        BadLine{"ad529x get --sync 25 --cs 24",
                "varnel: --cs: the AD529x has no select line\n"
                "  try: varnel ad529x get --help\n"},
        BadLine{"ad529x get --sync 25 --expander 22:3",
                "varnel: --expander: the AD529x can't be selected through an expander: it has no "
                "select line but SYNC (--sync)\n  try: varnel ad529x get --help\n"}));

INSTANTIATE_TEST_SUITE_P(
    ChipsThatStaySelected, BadArguments,
    testing::Values(
        BadLine{"icmd read",
                "varnel: --cs: is required: the iC-MD stays selected over several transfers, and "
                "the node's own select ends after each\n  try: varnel icmd read --help\n"},
        BadLine{"at25640b status --spi /dev/spidev0.1",
                "varnel: --cs: is required: the AT25640B stays selected over several transfers, "
                "and the node's own select ends after each\n"
                "  try: varnel at25640b status --help\n"},
        BadLine{"icmd clear --expander 22:3",
                "varnel: --expander: the iC-MD can't be selected through an expander: what is sent "
                "to the expander to deselect it would be written to its next registers\n"
                "  try: varnel icmd clear --help\n"},
        BadLine{"at25640b read 0 --expander 22:3:implicit",
                "varnel: --expander: the AT25640B can't be selected through an expander: what is "
                "sent to the expander to deselect it would make its instructions too long, and be "
                "written\n  try: varnel at25640b read --help\n"}));

INSTANTIATE_TEST_SUITE_P(
    Converters, BadArguments,
    testing::Values(
        BadLine{"ads1248",
                "varnel: a subcommand is missing: read, rate, gain\n"
                "  try: varnel ads1248 --help\n"},
        BadLine{"ads1248 read --drdy 24 --reset 23",
                "varnel: --start is required\n  try: varnel ads1248 read --help\n"},
        BadLine{"ads1248 read --start 22 --drdy 24",
                "varnel: --reset is required\n  try: varnel ads1248 read --help\n"},
        BadLine{"ads1248 read --start 22 --drdy gpiochip0 --reset 23",
                "varnel: --drdy: 'gpiochip0' is a chip: name one of its lines, e.g. gpiochip0:15\n"
                "  try: varnel ads1248 read --help\n"},
        BadLine{"ads1248 read --start 22 --drdy 24 --reset 23 --rate 81",
                "varnel: --rate: '81' is none of 5, 10, 20, 40, 80, 160, 320, 640, 1000, 2000\n"
                "  try: varnel ads1248 read --help\n"},
        BadLine{"ads1248 read --start 22 --drdy 24 --reset 23 --gain 0",
                "varnel: --gain: '0' is none of 1, 2, 4, 8, 16, 32, 64, 128\n"
                "  try: varnel ads1248 read --help\n"},
        BadLine{"ads1248 read --start 22 --drdy 24 --reset 23 --vref1 0",
                "varnel: --vref1: '0' is not a voltage above 0\n"
                "  try: varnel ads1248 read --help\n"},
        BadLine{"ads1248 rate --start 22 --drdy 24 --reset 23",
                "varnel: RATE is required\n  try: varnel ads1248 rate --help\n"},
        BadLine{"ads1248 gain 3 --start 22 --drdy 24 --reset 23",
                "varnel: GAIN: '3' is none of 1, 2, 4, 8, 16, 32, 64, 128\n"
                "  try: varnel ads1248 gain --help\n"},
        BadLine{"ads1248 read --start 22 --drdy 24 --reset 23 --expander 21:3",
                "varnel: --expander: the ADS1248 can't be selected through an expander: it needs "
                "SPI mode 1, and the transfer that selects it leaves the bus in mode 0\n"
                "  try: varnel ads1248 read --help\n"},
        BadLine{"ads1256 read --drdy 24 --reset 23 --expander 21:3:implicit",
                "varnel: --expander: the ADS1256 can't be selected through an expander: it needs "
                "SPI mode 1, and the transfer that selects it leaves the bus in mode 0\n"
                "  try: varnel ads1256 read --help\n"},
        BadLine{"ads1256 read --reset 23",
                "varnel: --drdy is required\n  try: varnel ads1256 read --help\n"},
        BadLine{"ads1256 read --drdy 24 --reset 23 --channels 0,4",
                "varnel: --channels: '4' is not a channel from 0 to 3\n"
                "  try: varnel ads1256 read --help\n"},
        BadLine{"ads1256 read --drdy 24 --reset 23 --channels 0,",
                "varnel: --channels: '' is not a channel from 0 to 3\n"
                "  try: varnel ads1256 read --help\n"},
        BadLine{"ads1256 read --drdy 24 --reset 23 --channels 0,1,0",
                "varnel: --channels: '0' stands there twice\n"
                "  try: varnel ads1256 read --help\n"},
        BadLine{"ads1256 read --drdy 24 --reset 23 --vref -1",
                "varnel: --vref: '-1' is not a voltage above 0\n"
                "  try: varnel ads1256 read --help\n"}));

TEST(Arguments, AnExpanderExcludesASelectPin) {
  const ToolRun run = runLine("mcp3201 read --expander 22:3 --cs 25");
  EXPECT_EQ(run.status, 2);
  EXPECT_THAT(run.err,
              testing::AllOf(HasSubstr("--cs"), HasSubstr("excludes"), HasSubstr("--expander")));
}

TEST(Arguments, AnyAddressGoesWhereTheNoneAddressIsAnother) {
  // Accepted: it fails at the line, which isn't there.
  EXPECT_EQ(runLine("mcp3201 read --expander 22:7 --expander-none 3").status, 1);
}

TEST(Arguments, AnUnknownOptionOrAWordTooMuchIsRefused) {
  EXPECT_EQ(runLine("mcp3201 read --bogus").status, 2);
  EXPECT_THAT(runLine("mcp3201 read --bogus").err, HasSubstr("--bogus"));
  EXPECT_EQ(runLine("mcp3201 read surplus").status, 2);
  EXPECT_THAT(runLine("mcp3201 read surplus").err, HasSubstr("surplus"));
  EXPECT_EQ(runLine("mcp3201 read --vref").status, 2);
  EXPECT_THAT(runLine("mcp3201 read --vref").err, HasSubstr("--vref"));
  EXPECT_EQ(runLine("mcp3201 read --speed 1 --speed 2").status, 2);
}

TEST(Help, IsPrintedWithStatusZero) {
  for (const std::string& line : pages()) {
    const ToolRun run = runLine(line);
    EXPECT_EQ(run.status, 0) << line;
    EXPECT_THAT(run.out, HasSubstr("--spi NODE")) << line;
    EXPECT_THAT(run.err, IsEmpty()) << line;
  }
}

TEST(Help, ShowsUnitsDefaultsAndExamples) {
  const std::string help = runLine("mcp3201 read --help").out;
  EXPECT_THAT(help, HasSubstr("(default: /dev/spidev1.0)"));
  EXPECT_THAT(help, HasSubstr("bus clock in kHz, 1 to 65535"));
  EXPECT_THAT(help, HasSubstr("(default: 500)"));
  EXPECT_THAT(help, HasSubstr("reference voltage in volts"));
  EXPECT_THAT(help, HasSubstr("(default: 3.3)"));
  EXPECT_THAT(help, HasSubstr("Examples:\n  varnel mcp3201 read"));
  EXPECT_THAT(runLine("--help").out, HasSubstr("Exit status: 0 done, 1 the device failed, 2"));
}

TEST(Help, EveryExampleIsAcceptedAsItStands) {
  const std::regex example("\n  varnel ([^\n]*)");
  int examples = 0;
  for (const std::string& page : pages()) {
    const std::string help = runLine(page).out;
    for (std::sregex_iterator i(help.begin(), help.end(), example), end; i != end; ++i) {
      // Asked for help as well, the line is read without a board being needed.
      const ToolRun run = runLine((*i)[1].str() + " --help");
      EXPECT_EQ(run.status, 0) << (*i)[1] << '\n' << run.err;
      ++examples;
    }
  }
  EXPECT_GE(examples, 122);
}

TEST(Help, TellsWhatTheWiringMustBe) {
  EXPECT_THAT(runLine("hc595 write --help").out, HasSubstr("Without --latch RCLK must be wired"));
  EXPECT_THAT(runLine("lv165a read --help").out, HasSubstr("wired straight to SH/LD"));
  EXPECT_THAT(runLine("address write --help").out,
              HasSubstr("a released line may fall back, and the address with it"));
}

TEST(Version, IsPrintedWithStatusZero) {
  const ToolRun run = runLine("--version");
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.out, testing::MatchesRegex("varnel [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  EXPECT_THAT(run.err, IsEmpty());
}

/// The options of all help pages, or of the manual page, without their dashes.
std::set<std::string> optionsIn(const std::string& text, const char* pattern) {
  const std::regex option(pattern);
  std::set<std::string> options;
  for (std::sregex_iterator i(text.begin(), text.end(), option), end; i != end; ++i) {
    options.insert((*i)[1]);
  }
  return options;
}

std::string manualPage() {
  std::ifstream file(TOOL_MANUAL_PAGE);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

TEST(ManualPage, HasExactlyTheOptionsOfTheHelpPages) {
  std::string help;
  for (const std::string& page : pages()) {
    help += runLine(page).out;
  }
  const auto inHelp = optionsIn(help, "\n  (?:-h,)?--([a-z0-9-]+)");
  EXPECT_EQ(inHelp.size(), 51U);
  EXPECT_EQ(optionsIn(manualPage(), "\n\\.It (?:Fl h , )?Fl -([a-z0-9-]+)"), inHelp);
}

TEST(ManualPage, NamesTheMembersOfJsonObjects) {
  const std::string page = manualPage();
  for (const char* key :
       {"chip",         "channel",   "gain",    "reading",   "code",     "volts",     "value",
        "chain",        "latch",     "inputs",  "bits",      "address",  "pins",      "time",
        "position",     "speed",     "state",   "busy",      "command",  "status",    "bridges",
        "direction",    "switch",    "alarms",  "register",  "meaning",  "code_a",    "volts_a",
        "code_b",       "volts_b",   "outputs", "duty",      "blank",    "positions", "share",
        "slot",         "left",      "control", "wiper",     "memory",   "stored",    "calibration",
        "counter",      "width",     "flags",   "rate",      "counters", "levels",    "reversed",
        "index_clears", "registers", "enabled", "protected", "wp",       "data",      "written",
        "unchanged",    "file",      "size",    "different"}) {
    EXPECT_THAT(page, HasSubstr(std::string("\n.It Li ") + key + '\n'));
  }
}

TEST(Mcp3201, VoltsAreCodeTimesReferenceOver4096) {
  EXPECT_DOUBLE_EQ(tool::mcp3201Volts(0, 3.3), 0.0);
  EXPECT_DOUBLE_EQ(tool::mcp3201Volts(2048, 5.0), 2.5);
  EXPECT_DOUBLE_EQ(tool::mcp3201Volts(4095, 4.096), 4.095);
}

}  // namespace
