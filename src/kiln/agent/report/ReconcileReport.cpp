#include "kiln/agent/report/ReconcileReport.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <array>
#include <iterator>
#include <string_view>

#include "kiln/agent/report/Report.h"

namespace KilnAgent {
namespace {

using Lines = std::back_insert_iterator<std::string>;

constexpr std::array<std::string_view, 3> kStateNames = {"running", "complete", "interrupted"};

Json outputJson(const KilnEmServer::OutputProgress& output) {
  const auto& counts = output.counts;
  return {{"output", output.output},     {"ready", output.ready},
          {"found", counts.found},       {"seen", counts.kept + counts.rewritten},
          {"kept", counts.kept},         {"rewritten", counts.rewritten},
          {"inserted", counts.inserted}, {"deleted", counts.deleted},
          {"waiting", counts.waiting()}};
}

Json stageJson(const KilnEmServer::StageProgress& stage) {
  Json outputs = Json::array();
  for (const auto& output : stage.outputs) outputs.push_back(outputJson(output));
  return {{"stage", stage.stage},
          {"complete", stage.complete},
          {"waits-for", stage.waitsFor},
          {"outputs", outputs}};
}

Json tableJson(const TableReconcile& table) {
  const std::uint64_t reached = table.hardware.written + table.hardware.removed;
  return {{"table", std::string(table.stem)},
          {"found", table.found},
          {"write-calls", table.calls.writes},
          {"removal-calls", table.calls.removals},
          {"hardware-writes", table.hardware.written},
          {"hardware-removals", table.hardware.removed},
          {"unchanged", table.hardware.unchanged},
          {"needed", reached - table.needless},
          {"needless", table.needless}};
}

std::uint64_t number(const Json& row, const char* name) {
  return row.at(name).get<std::uint64_t>();
}

const std::string& text(const Json& row, const char* name) {
  return row.at(name).get_ref<const std::string&>();
}

void addSummary(Lines out, const Json& report) {
  const Json& statuses = report.at("statuses");
  fmt::format_to(out, "Restart {}: {}, {}\n", number(report, "restart"), text(report, "state"),
                 number(report, "disturbed") == 0
                     ? std::string("hitless")
                     : fmt::format("{} DISTURBED", grouped(number(report, "disturbed"))));
  fmt::format_to(out, "  Statuses: {} found, {} changes seen by features, {} deletions among them\n",
                 grouped(number(statuses, "found")), grouped(number(statuses, "changed")),
                 grouped(number(statuses, "deleted")));
  for (const Json& row : report.at("disturbed-rows")) {
    fmt::format_to(out, "    {}\n", row.get_ref<const std::string&>());
  }
}

void addOutputs(Lines out, const Json& report) {
  fmt::format_to(out, "  {:44} {:>10} {:>10} {:>10} {:>10} {:>10} {:>10}\n", "Outputs that held entries",
                 "found", "kept", "rewritten", "deleted", "inserted", "waiting");
  std::uint64_t empty = 0;
  std::uint64_t inserted = 0;
  for (const Json& stage : report.at("stages")) {
    for (const Json& output : stage.at("outputs")) {
      if (number(output, "found") == 0) {
        ++empty;
        inserted += number(output, "inserted");
        continue;
      }
      fmt::format_to(out, "    {:42} {:>10} {:>10} {:>10} {:>10} {:>10} {:>10}\n", text(stage, "stage"),
                     grouped(number(output, "found")), grouped(number(output, "kept")),
                     grouped(number(output, "rewritten")), grouped(number(output, "deleted")),
                     grouped(number(output, "inserted")), grouped(number(output, "waiting")));
    }
  }
  fmt::format_to(out, "    {:42} {:>10} {:>10} {:>10} {:>10} {:>10} {:>10}\n",
                 fmt::format("{} outputs that were empty", empty), 0, "", "", "", grouped(inserted), "");
}

void addTables(Lines out, const Json& report) {
  fmt::format_to(out, "  {:44} {:>10} {:>10} {:>10} {:>10} {:>10} {:>10}\n", "Tables", "found", "unchanged",
                 "written", "removed", "needless", "calls");
  for (const Json& table : report.at("tables")) {
    const std::uint64_t calls = number(table, "write-calls") + number(table, "removal-calls");
    if (number(table, "found") + calls == 0) continue;
    fmt::format_to(out, "    {:42} {:>10} {:>10} {:>10} {:>10} {:>10} {:>10}\n", text(table, "table"),
                   grouped(number(table, "found")), grouped(number(table, "unchanged")),
                   grouped(number(table, "hardware-writes")), grouped(number(table, "hardware-removals")),
                   grouped(number(table, "needless")), grouped(calls));
  }
}

void addWaiting(Lines out, const Json& report) {
  if (const auto held = number(report, "held-answers"); held != 0) {
    fmt::format_to(out, "  Waits for {} answers that tables hold back\n", grouped(held));
  }
  for (const Json& stage : report.at("stages")) {
    if (stage.at("complete").get<bool>()) continue;
    fmt::format_to(out, "  {} waits for {}\n", text(stage, "stage"),
                   fmt::join(stage.at("waits-for").get<std::vector<std::string>>(), ", "));
  }
}

}  // namespace

Json reconcileJson(const ReconcileReport& report) {
  Json stages = Json::array();
  for (const auto& stage : report.stages) stages.push_back(stageJson(stage));
  Json tables = Json::array();
  for (const auto& table : report.tables) tables.push_back(tableJson(table));
  return {{"restart", report.restart},
          {"state", kStateNames[static_cast<std::size_t>(report.state)]},
          {"disturbed", report.disturbed},
          {"disturbed-rows", report.disturbedRows},
          {"statuses",
           {{"found", report.statusesFound},
            {"changed", report.statusesChanged},
            {"deleted", report.statusesDeleted}}},
          {"held-answers", report.heldAnswers},
          {"stages", std::move(stages)},
          {"tables", std::move(tables)}};
}

std::string reconcileText(const Json& report) {
  std::string lines;
  const Lines out(lines);
  addSummary(out, report);
  addOutputs(out, report);
  addTables(out, report);
  addWaiting(out, report);
  return lines;
}

}  // namespace KilnAgent
