#include "tests/report/Json.h"

#include <cstdlib>
#include <stdexcept>

namespace veltest {

namespace {

class Reader {
 public:
  explicit Reader(const std::string& text) : text_(text) {}

  Json document() {
    Json value = next();
    space();
    if (at_ != text_.size()) fail("text after the value");
    return value;
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw std::runtime_error("JSON: " + what + " at " + std::to_string(at_));
  }
  void space() {
    while (at_ < text_.size() && std::string(" \t\r\n").find(text_[at_]) != std::string::npos)
      ++at_;
  }
  bool take(const char* word) {
    const std::string w(word);
    if (text_.compare(at_, w.size(), w) != 0) return false;
    at_ += w.size();
    return true;
  }

  std::string string() {
    if (text_[at_++] != '"') fail("a string expected");
    std::string out;
    for (;;) {
      if (at_ >= text_.size()) fail("an unclosed string");
      const char c = text_[at_++];
      if (c == '"') return out;
      if (static_cast<unsigned char>(c) < 0x20) fail("a control character in a string");
      if (c != '\\') {
        out += c;
        continue;
      }
      const char e = text_[at_++];
      const std::string simple = "\"\\/bfnrt", meant = "\"\\/\b\f\n\r\t";
      const std::size_t which = simple.find(e);
      if (which != std::string::npos) {
        out += meant[which];
      } else if (e == 'u' && at_ + 4 <= text_.size()) {
        const long code = std::strtol(text_.substr(at_, 4).c_str(), nullptr, 16);
        at_ += 4;
        if (code >= 0x80) fail("only ASCII escapes are read here");
        out += static_cast<char>(code);
      } else {
        fail("a bad escape");
      }
    }
  }

  Json next() {
    space();
    if (at_ >= text_.size()) fail("a value expected");
    Json value;
    const char c = text_[at_];
    if (c == '{') {
      value.kind = Json::kObject;
      ++at_;
      space();
      if (take("}")) return value;
      for (;;) {
        space();
        const std::string name = string();
        space();
        if (!take(":")) fail("':' expected");
        value.fields[name] = next();
        space();
        if (take("}")) return value;
        if (!take(",")) fail("',' or '}' expected");
      }
    }
    if (c == '[') {
      value.kind = Json::kArray;
      ++at_;
      space();
      if (take("]")) return value;
      for (;;) {
        value.items.push_back(next());
        space();
        if (take("]")) return value;
        if (!take(",")) fail("',' or ']' expected");
      }
    }
    if (c == '"') {
      value.kind = Json::kString;
      value.text = string();
      return value;
    }
    if (take("true") || take("false")) {
      value.kind = Json::kBool;
      value.boolean = c == 't';
      return value;
    }
    if (take("null")) return value;
    const std::size_t start = at_;
    if (text_[at_] == '-') ++at_;
    while (at_ < text_.size() &&
           std::string("0123456789.eE+-").find(text_[at_]) != std::string::npos)
      ++at_;
    if (at_ == start) fail("a value expected");
    value.kind = Json::kNumber;
    value.text = text_.substr(start, at_ - start);
    char* end = nullptr;
    value.number = std::strtod(value.text.c_str(), &end);
    if (*end != '\0') fail("a bad number");
    return value;
  }

  const std::string& text_;
  std::size_t at_ = 0;
};

}  // namespace

const Json& Json::operator[](const std::string& name) const {
  const auto found = fields.find(name);
  if (found == fields.end()) throw std::runtime_error("JSON: no field " + name);
  return found->second;
}

Json ParseJson(const std::string& text) { return Reader(text).document(); }

}  // namespace veltest
