// SPDX-License-Identifier: MIT
#include <algorithm>
#include <charconv>

#include "vboard/launcher/BoardLoader.h"
#include "vboard/launcher/Words.h"

namespace vboard::launcher {

namespace {

bool before(const toml::source_region& first, const toml::source_region& second) {
  return std::pair(first.begin.line, first.begin.column) <
         std::pair(second.begin.line, second.begin.column);
}

}  // namespace

std::vector<Item> inFileOrder(const toml::table& table) {
  std::vector<Item> items;
  for (auto&& [key, node] : table) {
    items.push_back({&key, &node});
  }
  std::stable_sort(items.begin(), items.end(), [](const Item& first, const Item& second) {
    return before(first.key->source(), second.key->source());
  });
  return items;
}

std::string show(const toml::node& node) {
  if (const auto* text = node.as_string()) {
    return "the text " + inQuotes(text->get());
  }
  if (const auto* number = node.as_integer()) {
    return std::to_string(number->get());
  }
  if (const auto* number = node.as_floating_point()) {
    const std::string text = shortNumber(number->get());
    return text.find_first_not_of("-0123456789") == std::string::npos ? text + ".0" : text;
  }
  if (const auto* flag = node.as_boolean()) {
    return flag->get() ? "true" : "false";
  }
  if (const auto* list = node.as_array()) {
    return "a list of " + std::to_string(list->size());
  }
  return node.is_table() ? "a table" : "a date or time";
}

std::optional<int> numberAfter(std::string_view prefix, std::string_view name) {
  if (name.size() <= prefix.size() || name.substr(0, prefix.size()) != prefix) {
    return std::nullopt;
  }
  const std::string_view digits = name.substr(prefix.size());
  int number = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  const bool plain = digits == "0" || digits.front() != '0';
  if (error != std::errc() || end != digits.data() + digits.size() || number < 0 || !plain) {
    return std::nullopt;
  }
  return number;
}

int64_t Fields::integer(std::string_view key, int64_t value, int64_t min, int64_t max) {
  const toml::node* node = take(key);
  if (node == nullptr) {
    return value;
  }
  const auto* number = node->as_integer();
  if (number == nullptr || number->get() < min || number->get() > max) {
    loader_.problem(node->source(), std::string(key) + " can't be " + show(*node) +
                                        "; it is a whole number from " + std::to_string(min) +
                                        " to " + std::to_string(max));
    return value;
  }
  return number->get();
}

double Fields::number(std::string_view key, double value) {
  const toml::node* node = take(key);
  if (node == nullptr) {
    return value;
  }
  if (!node->is_number()) {
    loader_.problem(node->source(),
                    std::string(key) + " can't be " + show(*node) + "; it is a number");
    return value;
  }
  return *node->value<double>();
}

bool Fields::flag(std::string_view key, bool value) {
  const toml::node* node = take(key);
  if (node != nullptr && !node->is_boolean()) {
    loader_.problem(node->source(),
                    std::string(key) + " can't be " + show(*node) + "; it is true or false");
  }
  return node != nullptr ? node->value_or(value) : value;
}

std::optional<std::string> Fields::text(std::string_view key) {
  const toml::node* node = take(key);
  if (node == nullptr) {
    return std::nullopt;
  }
  if (const auto* text = node->as_string()) {
    return text->get();
  }
  loader_.problem(node->source(),
                  std::string(key) + " can't be " + show(*node) + "; it is a text in quotes");
  return std::nullopt;
}

std::optional<std::string> Fields::choice(std::string_view key,
                                          const std::vector<std::string>& words) {
  const toml::node* node = take(key);
  if (node == nullptr) {
    return std::nullopt;
  }
  const auto* text = node->as_string();
  if (text != nullptr && std::find(words.begin(), words.end(), text->get()) != words.end()) {
    return text->get();
  }
  loader_.problem(node->source(), std::string(key) + " can't be " + show(*node) +
                                      (text != nullptr ? didYouMean(text->get(), words) : "") +
                                      "; it is one of " + joined(words));
  return std::nullopt;
}

std::optional<Time> Fields::duration(std::string_view key) {
  const toml::node* node = take(key);
  if (node == nullptr) {
    return std::nullopt;
  }
  if (const auto* number = node->as_integer(); number != nullptr && number->get() == 0) {
    return Time(0);
  }
  if (const auto* text = node->as_string()) {
    if (const auto parsed = parseDuration(text->get())) {
      return parsed;
    }
  }
  loader_.problem(node->source(), std::string(key) + " can't be " + show(*node) +
                                      "; it is a time: " + std::string(kDurationForm));
  return std::nullopt;
}

const toml::table* Fields::tableAt(std::string_view key, std::string_view what) {
  const toml::node* node = take(key);
  if (node != nullptr && !node->is_table()) {
    loader_.problem(node->source(),
                    std::string(key) + " can't be " + show(*node) + "; it is " + std::string(what));
  }
  return node == nullptr ? nullptr : node->as_table();
}

void Fields::refuseOthers() {
  std::sort(allowed_.begin(), allowed_.end());
  for (const Item& item : inFileOrder(table_)) {
    const std::string key(item.key->str());
    if (!std::binary_search(allowed_.begin(), allowed_.end(), key)) {
      loader_.problem(*item.key, *item.node,
                      "unknown key " + inQuotes(key) + " in " + name_ + didYouMean(key, allowed_) +
                          "; allowed: " + joined(allowed_));
    }
  }
}

}  // namespace vboard::launcher
