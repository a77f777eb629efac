// SPDX-License-Identifier: MIT
#include "vboard/launcher/BoardLoader.h"
#include "vboard/launcher/Words.h"

namespace vboard::launcher {

namespace {

/// The values a signal reaches, to check against what its input allows.
std::vector<double> extremes(const Signal& signal) {
  if (const auto* ramp = std::get_if<Signal::Ramp>(&signal.shape)) {
    return {ramp->from, ramp->to};
  }
  if (const auto* sine = std::get_if<Signal::Sine>(&signal.shape)) {
    return {sine->offset - sine->amplitude, sine->offset + sine->amplitude};
  }
  std::vector<double> values;
  if (const auto* steps = std::get_if<Signal::Steps>(&signal.shape)) {
    for (const auto& [time, value] : steps->points) {
      values.push_back(value);
    }
  }
  return values;
}

}  // namespace

void Loader::setSignal(const Property& property, const toml::table& table) {
  const std::optional<Signal> signal = readSignal(table, property.name);
  if (!signal) {
    return;
  }
  for (const double value : extremes(*signal)) {
    if (const auto complaint = property.set(value)) {
      problem(table.source(),
              property.name + " can't reach " + shortNumber(value) + "; it " + *complaint);
      return;
    }
  }
  property.setSignal(*signal);
}

std::optional<Signal> Loader::readSignal(const toml::table& table, const std::string& name) {
  static const char* const kForms =
      "a signal is a number, { ramp = [FROM, TO], over = TIME, start = TIME, repeat = true }, "
      "{ sine = AMPLITUDE, offset = N, frequency = HZ, phase = TURNS } or "
      "{ steps = [[TIME, N], ...], repeat_every = TIME }";
  Fields fields(*this, table, "the signal of " + name);
  Signal signal;
  const size_t before = result_.problems.size();
  if (fields.has("ramp")) {
    signal = Signal(readRamp(fields));
  } else if (fields.has("sine")) {
    Signal::Sine sine;
    sine.amplitude = fields.number("sine", 0);
    sine.offset = fields.number("offset", 0);
    sine.frequencyHz = fields.number("frequency", 0);
    sine.phase = fields.number("phase", 0);
    signal = Signal(sine);
  } else if (fields.has("steps")) {
    signal = Signal(readSteps(fields));
  } else {
    problem(table.source(), name + " can't be this table; " + kForms);
    return std::nullopt;
  }
  fields.refuseOthers();
  return result_.problems.size() == before ? std::optional(signal) : std::nullopt;
}

Signal::Ramp Loader::readRamp(Fields& fields) {
  Signal::Ramp ramp;
  const toml::node* node = fields.take("ramp");
  const toml::array* ends = node->as_array();
  if (ends == nullptr || ends->size() != 2 || !(*ends)[0].is_number() || !(*ends)[1].is_number()) {
    problem(node->source(), "ramp can't be " + show(*node) + "; it is two numbers: [FROM, TO]");
  } else {
    ramp.from = *(*ends)[0].value<double>();
    ramp.to = *(*ends)[1].value<double>();
  }
  ramp.over = fields.duration("over").value_or(Time(0));
  ramp.start = fields.duration("start").value_or(Time(0));
  ramp.repeat = fields.flag("repeat", false);
  if (!fields.has("over")) {
    problem(fields.table().source(), "this ramp doesn't say over what time, such as over = \"1s\"");
  } else if (ramp.repeat && ramp.over == Time(0)) {
    problem(fields.table().source(), "a ramp that repeats must take longer than 0");
  }
  return ramp;
}

Signal::Steps Loader::readSteps(Fields& fields) {
  Signal::Steps steps;
  const toml::node* node = fields.take("steps");
  const toml::array* list = node->as_array();
  for (size_t i = 0; list != nullptr && i < list->size(); ++i) {
    const toml::array* step = (*list)[i].as_array();
    const bool pair =
        step != nullptr && step->size() == 2 && (*step)[0].is_string() && (*step)[1].is_number();
    const auto time = pair ? parseDuration((*step)[0].as_string()->get()) : std::optional<Time>();
    if (!time || (!steps.points.empty() && *time <= steps.points.back().first)) {
      problem((*list)[i].source(),
              "a step is [TIME, NUMBER], later than the one before; a time is " +
                  std::string(kDurationForm));
      return steps;
    }
    steps.points.emplace_back(*time, *(*step)[1].value<double>());
  }
  if (steps.points.empty()) {
    problem(node->source(),
            "steps can't be " + show(*node) + "; it is a list: [[\"0s\", 1.0], ...]");
  }
  steps.repeatEvery = fields.duration("repeat_every").value_or(Time(0));
  if (fields.has("repeat_every") && !steps.points.empty() &&
      steps.repeatEvery <= steps.points.back().first) {
    problem(fields.table().source(), "repeat_every must be longer than the last step's time");
  }
  return steps;
}

}  // namespace vboard::launcher
