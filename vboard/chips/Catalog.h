// SPDX-License-Identifier: MIT
#ifndef VBOARD_CHIPS_CATALOG_H
#define VBOARD_CHIPS_CATALOG_H

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "vboard/board/Part.h"

namespace vboard {

/// Makes a part by its type name as board files spell it ("MCP3201"); null for an unknown type.
std::unique_ptr<Part> makePart(std::string_view type, std::string name);

/// The type names `makePart` knows, sorted.
const std::vector<std::string_view>& partTypes();

}  // namespace vboard

#endif
