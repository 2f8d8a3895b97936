#pragma once
// A small, strict JSON reader for the tests: enough to check that a trace is
// JSON and to look into it. Throws std::runtime_error on anything else.

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace veltest {

struct Json {
  enum Kind { kNull, kBool, kNumber, kString, kArray, kObject } kind = kNull;
  bool boolean = false;
  double number = 0;
  std::string text;  // a string's value, a number's digits
  std::vector<Json> items;
  std::map<std::string, Json> fields;

  const Json& operator[](const std::string& name) const;  // throws when absent
  bool has(const std::string& name) const { return fields.count(name) > 0; }
};

Json ParseJson(const std::string& text);

}  // namespace veltest
