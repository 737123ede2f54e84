#include "collector/page/html/tables.h"

#include "collector/page/html/html.h"

namespace quenor::collector {
namespace {

std::string ProblemsOf(const Overview& overview) {
  if (overview.problems.empty()) return "<p class=\"good\">All is well.</p>\n";
  std::string html = "<div class=\"bad\" role=\"status\"><p>" +
                     std::to_string(overview.problems.size()) +
                     (overview.problems.size() == 1 ? " problem" : " problems") + "</p><ul>\n";
  for (const std::string& problem : overview.problems) {
    html += "<li>" + Escape(problem) + "</li>\n";
  }
  return html + "</ul></div>\n";
}

std::string WholeTable(const Overview& overview) {
  Table table("All collectors, over ten seconds",
              {"reports", "p50", "p99", "in flight", "bytes in flight"});
  const Traffic& traffic = overview.traffic;
  table.AddRow({{RateText(traffic.per_second)},
                {TookText(traffic.p50)},
                {TookText(traffic.p99)},
                {CountText(traffic.in_flight)},
                {SizeText(traffic.in_flight_bytes)}});
  return table.Finish();
}

std::string AnswersTable(const Overview& overview) {
  Table table("Answers", {"status", "now", "since the collectors began"});
  for (const auto& [status, answers] : overview.answers) {
    const bool is_bad = status >= 500 && answers.per_second > 0;
    table.AddRow({{std::to_string(status)},
                  {RateText(answers.per_second), is_bad},
                  {CountText(answers.total)}});
  }
  if (overview.answers.empty()) table.AddRow({{"no collector answers", true, true}});
  return table.Finish();
}

std::string CollectorsTable(const Overview& overview) {
  Table table("Collectors",
              {"address", "state", "reports", "p50", "p99", "in flight", "connections", "control"});
  for (const CollectorRow& row : overview.collectors) {
    if (!row.problem.empty()) {
      table.AddRow({{row.url}, {row.problem, true, true}});
      continue;
    }
    const std::string control =
        row.control_revision == 0 ? "its own" : "revision " + std::to_string(row.control_revision);
    table.AddRow({{row.url},
                  {row.state, !row.is_ready},
                  {RateText(row.traffic.per_second)},
                  {TookText(row.traffic.p50)},
                  {TookText(row.traffic.p99)},
                  {CountText(row.traffic.in_flight)},
                  {CountText(row.connections)},
                  {control, row.has_other_control}});
  }
  if (overview.collectors.empty()) table.AddRow({{"none given: --collector", false, true}});
  return table.Finish();
}

std::string NodesTable(const Overview& overview) {
  Table table("Nodes", {"address", "first", "messages", "lag", "disk", "leader", "copy"});
  for (const NodeRow& row : overview.nodes) {
    if (!row.answers) {
      table.AddRow({{row.node.url}, {row.problem, true, true}});
      continue;
    }
    const bool is_bad = !row.problem.empty();
    table.AddRow(
        {{row.node.url},
         {CountText(row.node.first_sequence)},
         {CountText(row.node.messages)},
         {CountText(row.lag)},
         {SizeText(row.node.storage_bytes) + " of " + SizeText(row.node.max_storage_bytes)},
         {row.node.leader},
         {is_bad ? row.problem : "as the others", is_bad}});
  }
  if (overview.nodes.empty()) table.AddRow({{"none given: --monitor", false, true}});
  return table.Finish();
}

std::string StoreTable(const Overview& overview) {
  Table table("Store", {"stream", "messages", "replicas", "filled", "not exported yet"});
  const StoreLook& store = overview.store;
  if (!store.problem.empty()) {
    table.AddRow({{store.problem, true, true}});
    return table.Finish();
  }
  table.AddRow({{store.max_bytes == 0 ? SizeText(store.bytes)
                                      : SizeText(store.bytes) + " of " + SizeText(store.max_bytes)},
                {CountText(store.messages)},
                {CountText(store.replicas)},
                {store.max_bytes == 0 ? "-" : PercentText(overview.fill), overview.is_nearly_full},
                {store.reader_problem.empty() ? CountText(overview.reader_lag) : "not known",
                 !store.reader_problem.empty()}});
  return table.Finish();
}

std::string ControlTable(const Overview& overview) {
  const StoreLook& store = overview.store;
  const std::string& problem = store.problem.empty() ? store.control_problem : store.problem;
  const uint64_t revision = store.control.revision;
  std::string caption = "Control: revision " + std::to_string(revision);
  if (revision == 0) caption = "Control: nothing is set, each collector says its own";
  if (!problem.empty()) caption = "Control";
  Table table(caption, {"setting", "value"});
  if (!problem.empty()) {
    table.AddRow({{problem, true, true}});
    return table.Finish();
  }
  for (const auto& [name, value] : FieldsOf(store.control.settings)) {
    table.AddRow({{name}, {value}});
  }
  return table.Finish();
}

}  // namespace

std::string TablesOf(const Overview& overview) {
  return ProblemsOf(overview) + WholeTable(overview) + CollectorsTable(overview) +
         NodesTable(overview) + StoreTable(overview) + AnswersTable(overview) +
         ControlTable(overview);
}

}  // namespace quenor::collector
