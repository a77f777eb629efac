// SPDX-License-Identifier: MIT
#include "tool/ExpanderSpec.h"

#include <fmt/format.h>

#include <charconv>
#include <stdexcept>

namespace tool {
namespace {

uint8_t parseAddress(std::string_view text) {
  unsigned int address = 0;
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, address);
  if (result.ec != std::errc() || result.ptr != end || address > kHighestExpanderAddress) {
    throw std::invalid_argument(
        fmt::format("'{}' is not an address from 0 to {}", text, kHighestExpanderAddress));
  }
  return static_cast<uint8_t>(address);
}

}  // namespace

ExpanderSpec parseExpander(std::string_view text) {
  constexpr std::string_view kImplicit = ":implicit";
  ExpanderSpec spec;
  // From the right, because the pin may have a colon of its own.
  std::string_view rest = text;
  spec.implicitly = rest.ends_with(kImplicit);
  if (spec.implicitly) {
    rest.remove_suffix(kImplicit.size());
  }
  const size_t colon = rest.rfind(':');
  if (colon == std::string_view::npos) {
    throw std::invalid_argument(
        fmt::format("'{}': an address must follow the latch pin, e.g. {}:3", text, rest));
  }
  spec.address = parseAddress(rest.substr(colon + 1));
  spec.latch = parsePin(rest.substr(0, colon));
  return spec;
}

}  // namespace tool
