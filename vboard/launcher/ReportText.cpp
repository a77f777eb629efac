// SPDX-License-Identifier: MIT
#include "vboard/launcher/ReportText.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include "vboard/launcher/Words.h"

namespace vboard::launcher {

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kShownViolations = 20;

std::string contents(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

std::string duration(int64_t nanoseconds) {
  const auto value = static_cast<double>(nanoseconds);
  return value < 1e3   ? std::to_string(nanoseconds) + " ns"
         : value < 1e6 ? shortNumber(value / 1e3) + " us"
         : value < 1e9 ? shortNumber(value / 1e6) + " ms"
                       : shortNumber(value / 1e9) + " s";
}

std::string counted(uint64_t count, const std::string& what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

std::string valueText(const Json& value) {
  return value.is_string()         ? value.get<std::string>()
         : value.is_number_float() ? shortNumber(value.get<double>())
                                   : value.dump();
}

void writeChips(std::ostream& out, const Json& process) {
  for (const Json& chip : process["chips"]) {
    out << "  " << chip["name"].get<std::string>() << " (" << chip["type"].get<std::string>()
        << ")";
    std::string separator = ": ";
    for (const auto& [name, property] : chip["properties"].items()) {
      const std::string unit = property["unit"];
      out << separator << name << " " << valueText(property["value"])
          << (unit.empty() ? "" : " " + unit);
      separator = ", ";
    }
    out << "\n";
  }
}

void writeWires(std::ostream& out, const Json& process) {
  for (const Json& bus : process["buses"]) {
    out << "  " << bus["name"].get<std::string>() << ": " << counted(bus["transfers"], "transfer")
        << ", " << counted(bus["words"], "word") << ", " << counted(bus["clocks"], "clock")
        << ", busy " << duration(bus["busyNs"]) << "\n";
  }
  for (const Json& line : process["outputs"]) {
    const std::string name = line["name"];
    out << "  " << line["chip"].get<std::string>() << ":" << line["line"].get<int>()
        << (name.empty() ? "" : " " + name) << ": driven "
        << (line["level"].get<int>() != 0 ? "high" : "low") << "\n";
  }
}

void writeViolations(std::ostream& out, const Json& process) {
  const uint64_t count = process["violationCount"];
  out << "  " << (count == 0 ? "no violations" : counted(count, "violation") + ":") << "\n";
  size_t shown = 0;
  for (const Json& violation : process["violations"]) {
    if (shown++ == kShownViolations) {
      break;
    }
    out << "    at " << duration(violation["timeNs"]) << " " << violation["part"].get<std::string>()
        << ": " << violation["rule"].get<std::string>() << ": "
        << violation["details"].get<std::string>() << "\n";
  }
  if (count > kShownViolations) {
    out << "    and " << count - kShownViolations << " more\n";
  }
}

void writeProcess(std::ostream& out, const Json& process, bool several) {
  std::string who = process["program"].get<std::string>();
  if (several) {
    who += " (process " + std::to_string(process["pid"].get<int64_t>()) + ")";
  }
  if (!process["complete"].get<bool>()) {
    out << "varnel-board: " << who
        << " used the board, but no report came from it: it was killed or still runs\n";
    return;
  }
  out << "varnel-board: " << who << " used the board for " << duration(process["boardTimeNs"])
      << " of its time\n";
  writeChips(out, process);
  writeWires(out, process);
  writeViolations(out, process);
}

}  // namespace

Json collectReports(const std::string& directory) {
  std::vector<std::filesystem::path> begun;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.path().extension() == ".begun") {
      begun.push_back(entry.path());
    }
  }
  const auto moment = [](const std::filesystem::path& path) {
    return std::pair(std::filesystem::last_write_time(path), path);
  };
  std::sort(begun.begin(), begun.end(),
            [&](const auto& first, const auto& second) { return moment(first) < moment(second); });
  Json processes = Json::array();
  for (std::filesystem::path path : begun) {
    const std::string program = contents(path);
    Json report = Json::parse(contents(path.replace_extension(".json")), nullptr, false);
    if (report.is_discarded()) {
      report = {{"program", program}, {"pid", std::atol(path.stem().c_str())}, {"complete", false}};
    }
    processes.push_back(std::move(report));
  }
  return processes;
}

uint64_t violationsIn(const Json& report) {
  uint64_t count = 0;
  for (const Json& process : report["processes"]) {
    count += process.value("violationCount", uint64_t{0});
  }
  return count;
}

bool reportMissing(const Json& report) {
  return std::any_of(report["processes"].begin(), report["processes"].end(),
                     [](const Json& process) { return !process["complete"].get<bool>(); });
}

std::string reportText(const Json& report) {
  std::ostringstream out;
  const Json& processes = report["processes"];
  for (const Json& process : processes) {
    writeProcess(out, process, processes.size() > 1);
  }
  if (const int signal = report["signal"]; signal != 0) {
    out << "varnel-board: " << report["command"][0].get<std::string>() << " was killed by signal "
        << signal << " (" << ::strsignal(signal) << ")\n";
  }
  if (processes.empty()) {
    out << "varnel-board: no program used the board: none opened a node of it\n";
  }
  return out.str();
}

}  // namespace vboard::launcher
