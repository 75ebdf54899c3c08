// The configuration file: what the daemon cannot parse, and what it passes over without a word.

#include <algorithm>
#include <cctype>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include <json-c/json.h>

#include "ctl/checks.h"
#include "ctl/json_keys.h"
#include "util/file.h"

namespace tavlo::ctl {

namespace {

// More wrong letters are another word.
constexpr size_t kMostWrongLetters = 4;

// For editors, and passed over by the daemon on purpose.
constexpr const char* kSchemaKey = "$schema";

using JsonTree = std::unique_ptr<json_object, decltype(&json_object_put)>;

struct ConfigFile {
  const std::string& path;
  const std::string& text;
  TextPlaces places;
  JsonTree root;
  size_t end;  // of the value and of blanks and comments behind it: the daemon reads no further
  std::vector<JsonKey> keys;
  std::map<std::string, size_t> offsets;  // of the keys that count, the last ones of their names

  // The place of the key that counts.
  std::string Place(const std::string& name) const {
    const auto found = offsets.find(name);
    return found == offsets.end() ? path : places.Of(found->second);
  }
};

// As the daemon does it: the terminating NUL is parsed too.
ConfigFile Parse(const std::string& path, const std::string& text, Findings* findings) {
  const std::unique_ptr<json_tokener, decltype(&json_tokener_free)> tokener(json_tokener_new(),
                                                                            json_tokener_free);
  JsonTree root(
      json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size()) + 1),
      json_object_put);
  const size_t end = std::min(json_tokener_get_parse_end(tokener.get()), text.size());
  ConfigFile file = {path, text, TextPlaces(path, text), std::move(root), end, {}, {}};
  if (file.root == nullptr) {
    const json_tokener_error error = json_tokener_get_error(tokener.get());
    const std::string reason = error == json_tokener_success
                                   ? "it holds nothing but null"
                                   : std::string("no JSON: ") + json_tokener_error_desc(error);
    findings->Add(file.places.Of(end), reason + ": the daemon does not start",
                  "mend it there or just before: a comma, a quote or a bracket, mostly");
    return file;
  }
  file.keys = TopLevelKeys(text.substr(0, end));
  for (const JsonKey& key : file.keys) {
    file.offsets[key.name] = key.offset;
  }
  return file;
}

void CheckRest(const ConfigFile& file, Findings* findings) {
  if (file.end < file.text.size()) {
    findings->Add(file.places.Of(file.end),
                  "all from here on is ignored, as the configuration has ended before",
                  "take it out, or the bracket that closes too early");
  }
}

size_t EditDistance(const std::string& one, const std::string& other) {
  std::vector<size_t> row(other.size() + 1);
  for (size_t i = 0; i <= other.size(); ++i) {
    row[i] = i;
  }
  for (size_t i = 0; i < one.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i + 1;
    for (size_t j = 0; j < other.size(); ++j) {
      const bool same = std::tolower(static_cast<unsigned char>(one[i])) ==
                        std::tolower(static_cast<unsigned char>(other[j]));
      const size_t replaced = diagonal + (same ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

// Empty when no key is like it.
std::string MostLike(const std::string& name, const std::vector<AppSettings::Key>& keys) {
  std::string best;
  size_t least = kMostWrongLetters + 1;
  for (const AppSettings::Key& key : keys) {
    if (name.size() > key.name.size() + kMostWrongLetters) {
      continue;  // it may have a mebibyte
    }
    const size_t distance = EditDistance(name, key.name);
    if (distance < least) {
      least = distance;
      best = key.name;
    }
  }
  return best;
}

std::string Quoted(const std::string& text) {
  return '"' + text + '"';
}

std::string KindOf(json_object* value) {
  switch (json_object_get_type(value)) {
    case json_type_null:
      return "null";
    case json_type_boolean:
      return "true or false";
    case json_type_double:
      return "a number with a fraction";
    case json_type_int:
      return "a number";
    case json_type_string:
      return "a text in quotes";
    case json_type_array:
      return "a list";
    default:
      return "an object";
  }
}

std::string TextOf(json_object* value) {
  return {json_object_get_string(value), static_cast<size_t>(json_object_get_string_len(value))};
}

std::string WhatIsRight(const AppSettings::Key& key) {
  return key.isNumber ? "a number from " + std::to_string(key.smallest) + " to " +
                            std::to_string(key.largest) + ", without quotes"
                      : "a text in quotes";
}

// What the file says for a known key, beside what is in force.
void CheckValue(const ConfigFile& file, const AppSettings::Key& key, json_object* value,
                const AppSettings& settings, Findings* findings) {
  std::string inForce;
  settings.GetConfigValue(key.name, &inForce);
  const bool isProperType =
      json_object_is_type(value, key.isNumber ? json_type_int : json_type_string) != 0;
  if (isProperType && (key.isNumber ? json_object_get_string(value) : TextOf(value)) == inForce) {
    return;
  }
  const std::string reason = isProperType
                                 ? json_object_get_string(value) + std::string(" is out of range")
                                 : "it is " + KindOf(value);
  findings->Add(file.Place(key.name),
                Quoted(key.name) + " is ignored, as " + reason + ": " +
                    (key.isNumber ? inForce : Quoted(inForce)) + " is in force",
                "write " + WhatIsRight(key));
}

void CheckUnknownKey(const ConfigFile& file, const std::string& name,
                     const std::vector<AppSettings::Key>& keys, Findings* findings) {
  const std::string meant = MostLike(name, keys);
  findings->Add(file.Place(name), Quoted(name) + " is not known, and ignored",
                meant.empty() ? "take it out" : "did you mean " + Quoted(meant) + "?");
}

void CheckRepeatedKeys(const ConfigFile& file, Findings* findings) {
  for (const JsonKey& key : file.keys) {
    if (key.offset != file.offsets.at(key.name)) {
      findings->Add(file.places.Of(key.offset),
                    Quoted(key.name) + " is ignored, as it comes again below",
                    "take one of them out");
    }
  }
}

void CheckMembers(const ConfigFile& file, const AppSettings& settings, Findings* findings) {
  const std::vector<AppSettings::Key> keys = settings.Keys();
  json_object_iterator member = json_object_iter_begin(file.root.get());
  const json_object_iterator end = json_object_iter_end(file.root.get());
  for (; json_object_iter_equal(&member, &end) == 0; json_object_iter_next(&member)) {
    const std::string name = json_object_iter_peek_name(&member);
    const auto key = std::find_if(keys.begin(), keys.end(),
                                  [&](const AppSettings::Key& each) { return each.name == name; });
    if (key != keys.end()) {
      CheckValue(file, *key, json_object_iter_peek_value(&member), settings, findings);
    } else if (name != kSchemaKey) {
      CheckUnknownKey(file, name, keys, findings);
    }
  }
}

}  // namespace

bool CheckSettings(const std::string& path, AppSettings* settings, Findings* findings) {
  if (path.empty()) {
    return true;
  }
  std::string text;
  const Orx::Status status = stdext::file::without_lock(path).read(stdext::kMaxFileSize, &text);
  if (!status.IsOk()) {
    findings->AddUnseen(path, status.Message());
    return false;
  }
  const ConfigFile file = Parse(path, text, findings);
  if (file.root == nullptr || !settings->LoadConfigFile(path, nullptr)) {
    return false;
  }
  CheckRest(file, findings);
  if (json_object_is_type(file.root.get(), json_type_object) == 0) {
    findings->Add(file.places.Of(0),
                  "every key is ignored, as the whole is " + KindOf(file.root.get()) +
                      ": all settings have their defaults",
                  "put the keys into an object: { ... }");
    return true;
  }
  CheckRepeatedKeys(file, findings);
  CheckMembers(file, *settings, findings);
  return true;
}

}  // namespace tavlo::ctl
