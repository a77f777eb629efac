// SPDX-License-Identifier: MIT
#include "vboard/chips/Decoder3to8.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/vboard/board/Parts.h"
#include "vboard/vboard.h"

namespace {

using boardtest::Hand;

struct DecoderRig {
  vboard::Board board;
  vboard::Decoder3to8& chip = board.add<vboard::Decoder3to8>("u1");
  Hand* address[3];
  Hand* enable[3];

  DecoderRig() {
    for (int i = 0; i < 3; ++i) {
      address[i] = &board.add<Hand>("address" + std::to_string(i));
      enable[i] = &board.add<Hand>("enable" + std::to_string(i));
      board.connect(address[i]->p(), chip.pin("A" + std::to_string(i)));
      board.connect(enable[i]->p(), chip.pin("E" + std::to_string(i + 1)));
    }
    board.powerUp();
    enable[0]->low();
    enable[1]->low();
    enable[2]->high();
  }
  void set(int number) {
    for (int i = 0; i < 3; ++i) {
      ((number >> i) & 1) != 0 ? address[i]->high() : address[i]->low();
    }
  }
  std::string outputs() {
    std::string levels;
    for (int i = 0; i < 8; ++i) {
      levels += chip.pin("Y" + std::to_string(i)).high() ? '1' : '0';
    }
    return levels;
  }
};

TEST(Decoder3to8, PullsTheAddressedOutputLow) {
  DecoderRig rig;
  for (int number = 0; number < 8; ++number) {
    rig.set(number);
    std::string expected = "11111111";
    expected[static_cast<size_t>(number)] = '0';
    EXPECT_EQ(rig.outputs(), expected);
  }
}

TEST(Decoder3to8, WithoutAnyOfItsEnablesSelectsNothing) {
  DecoderRig rig;
  rig.set(3);
  rig.enable[0]->high();
  EXPECT_EQ(rig.outputs(), "11111111");
  rig.enable[0]->low();
  rig.enable[1]->high();
  EXPECT_EQ(rig.outputs(), "11111111");
  rig.enable[1]->low();
  rig.enable[2]->low();
  EXPECT_EQ(rig.outputs(), "11111111");
  rig.enable[2]->high();
  EXPECT_EQ(rig.outputs(), "11101111");
}

TEST(Decoder3to8, IsEnabledWhereNothingIsConnected) {
  vboard::Board board;
  auto& chip = board.add<vboard::Decoder3to8>("u1");
  board.powerUp();
  EXPECT_FALSE(chip.pin("Y0").high());
  EXPECT_TRUE(chip.pin("Y1").high());
}

}  // namespace
