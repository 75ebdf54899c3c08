#include "ctl/findings.h"

#include <memory>

#include <json-c/json.h>

#include "ctl/command.h"
#include "ctl/printable.h"

namespace tavlo::ctl {

namespace {

// A name may be no UTF-8, which JSON is.
void AddText(json_object* object, const char* key, const std::string& text) {
  const std::string shown = IsUtf8(text) ? text : Printable(text, text.size());
  json_object_object_add(object, key,
                         json_object_new_string_len(shown.data(), static_cast<int>(shown.size())));
}

json_object* JsonArray(const std::vector<Finding>& findings) {
  json_object* const array = json_object_new_array();
  for (const Finding& finding : findings) {
    json_object* const object = json_object_new_object();
    AddText(object, "where", finding.where);
    AddText(object, "what", finding.what);
    if (!finding.cure.empty()) {
      AddText(object, "cure", finding.cure);
    }
    json_object_array_add(array, object);
  }
  return array;
}

}  // namespace

int Findings::ExitCode() const {
  if (!findings_.empty()) {
    return kFindings;
  }
  return unseen_.empty() ? kClean : kCouldNotLook;
}

void Findings::PrintText(std::ostream& out) const {
  for (const Finding& finding : findings_) {
    out << ForTerminal(finding.where + ": " + finding.what) << '\n'
        << ForTerminal("    cure: " + finding.cure) << '\n';
  }
  for (const Finding& each : unseen_) {
    out << ForTerminal(each.where + ": not looked at: " + each.what) << '\n';
  }
  out << findings_.size() << (findings_.size() == 1 ? " finding\n" : " findings\n");
}

void Findings::PrintJson(std::ostream& out) const {
  const std::unique_ptr<json_object, decltype(&json_object_put)> root(json_object_new_object(),
                                                                      json_object_put);
  json_object_object_add(root.get(), "findings", JsonArray(findings_));
  json_object_object_add(root.get(), "unseen", JsonArray(unseen_));
  constexpr int kForm =
      JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE;
  out << json_object_to_json_string_ext(root.get(), kForm) << '\n';
}

}  // namespace tavlo::ctl
