// SPDX-License-Identifier: MIT
#include "vboard/chips/Catalog.h"

#include "vboard/board/TriStateBuffer.h"
#include "vboard/chips/Ad529x.h"
#include "vboard/chips/Ads1248.h"
#include "vboard/chips/Ads1256.h"
#include "vboard/chips/At25640b.h"
#include "vboard/chips/Decoder3to8.h"
#include "vboard/chips/Encoder.h"
#include "vboard/chips/Hc595.h"
#include "vboard/chips/Icmd.h"
#include "vboard/chips/L6470.h"
#include "vboard/chips/Lv165a.h"
#include "vboard/chips/Mcp3201.h"
#include "vboard/chips/Mcp4822.h"
#include "vboard/chips/Powerstep01.h"
#include "vboard/chips/StepperMotor.h"
#include "vboard/chips/Tlc5947.h"

namespace vboard {

namespace {

struct Kind {
  std::string_view type;
  std::unique_ptr<Part> (*make)(std::string name);
};

template <typename PartType>
constexpr Kind kind() {
  return {PartType::kType, [](std::string name) -> std::unique_ptr<Part> {
            return std::make_unique<PartType>(std::move(name));
          }};
}

constexpr Kind kKinds[] = {
    kind<Ad5291>(),         kind<Ad5292>(),      kind<Ads1248>(),      kind<Ads1256>(),
    kind<At25640b>(),       kind<Decoder3to8>(), kind<Encoder>(),      kind<Hc595>(),
    kind<Icmd>(),           kind<L6470>(),       kind<Lv165a>(),       kind<Mcp3201>(),
    kind<Mcp4822>(),        kind<Powerstep01>(), kind<StepperMotor>(), kind<Tlc5947>(),
    kind<TriStateBuffer>(),
};

}  // namespace

std::unique_ptr<Part> makePart(std::string_view type, std::string name) {
  for (const Kind& known : kKinds) {
    if (known.type == type) {
      return known.make(std::move(name));
    }
  }
  return nullptr;
}

const std::vector<std::string_view>& partTypes() {
  static const std::vector<std::string_view> kTypes = [] {
    std::vector<std::string_view> types;
    for (const Kind& known : kKinds) {
      types.push_back(known.type);
    }
    return types;
  }();
  return kTypes;
}

}  // namespace vboard
