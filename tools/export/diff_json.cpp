// A profile's document, with both reports' figures in every group.
#include "tools/export/diff_json.h"

#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "tools/export/json.h"
#include "tools/report/diff.h"

namespace memleak {
namespace {

using nlohmann::json;

void AddChange(const GroupChange& change, json* group) {
  json before = {{"count", change.before.count}, {"total", change.before.total}};
  // A list that was cut leaves only a bound to be told.
  if (change.before.most != change.before.total) before["atMost"] = change.before.most;
  if (change.after.most != change.after.total) (*group)["atMost"] = change.after.most;
  (*group)["before"] = std::move(before);
  (*group)["status"] = ChangeName(change.change);
}

}  // namespace

std::string DiffJson(const Profile& before, const Profile& after) {
  const Difference difference = Compare(before, after);
  json document = ToJson(difference.merged);
  document["report"] = ReportToJson(after);
  document["totals"] = TotalsToJson(after);
  document["base"] = {{"report", ReportToJson(before)}, {"totals", TotalsToJson(before)}};
  for (std::size_t i = 0; i < difference.changes.size(); ++i) {
    AddChange(difference.changes[i], &document["groups"][i]);
  }
  std::ostringstream text;
  WriteJson(document, text);
  return std::move(text).str();
}

}  // namespace memleak
