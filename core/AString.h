#pragma once
// AString: the wide-character string in which paths, names and messages
// travel. VEL_ANSI gives its narrow form, the form used for everything written
// to or read from extracta's files and for paths handed to the file system and
// the zip writer.
//
// Narrow text is the user's code page; on Linux that is UTF-8. Bytes that are
// not valid UTF-8 (a file name from another system, say) are carried through
// as the code points U+DC80..U+DCFF and written back as the same bytes, so any
// narrow text survives the round trip narrow -> AString -> narrow unchanged.

#include <cstdarg>
#include <cstddef>
#include <string>
#include <vector>

class AString {
 public:
  AString() = default;
  AString(const char* narrow);  // NOLINT: implicit on purpose, as the core library's
  AString(const char* narrow, std::size_t length);
  AString(const std::string& narrow);  // NOLINT
  AString(const wchar_t* wide);        // NOLINT
  AString(std::wstring wide);          // NOLINT

  // Replaces the content with the formatted text. The format is wide and is
  // read as the system writes its formats: %s takes a wide string
  // (const wchar_t*), %hs a narrow one; %d, %u, %x, %ld, %lld, %zu, %f, %c and
  // %% as in printf, with flags, width and precision.
  void Format(const wchar_t* format, ...);

  // Whole-text comparisons: Match is exact, MatchNoCase ignores case.
  bool Match(const AString& other) const { return text_ == other.text_; }
  bool MatchNoCase(const AString& other) const;

  // Splits the text at every character of `separators`. Empty pieces (two
  // separators in a row, a leading or trailing one) are dropped unless
  // `keepEmptyPieces` is set.
  std::vector<AString> TokenizeString(const AString& separators, bool keepEmptyPieces) const;

  bool empty() const { return text_.empty(); }
  std::size_t length() const { return text_.size(); }
  const wchar_t* c_str() const { return text_.c_str(); }
  const std::wstring& wstr() const { return text_; }

  AString& operator+=(const AString& other) {
    text_ += other.text_;
    return *this;
  }
  AString& operator+=(wchar_t c) {
    text_ += c;
    return *this;
  }
  friend AString operator+(AString left, const AString& right) { return left += right; }
  friend bool operator==(const AString& a, const AString& b) { return a.text_ == b.text_; }
  friend bool operator!=(const AString& a, const AString& b) { return a.text_ != b.text_; }
  friend bool operator<(const AString& a, const AString& b) { return a.text_ < b.text_; }

 private:
  std::wstring text_;
};

// The narrow (user code page) form of a string.
std::string VEL_ANSI(const AString& text);

// The conversions behind AString and VEL_ANSI, for code that holds plain
// standard strings.
std::wstring WidenText(const char* narrow, std::size_t length);
std::string NarrowText(const std::wstring& wide);

// Formats like AString::Format into a new string.
std::wstring FormatWide(const wchar_t* format, ...);
std::wstring VFormatWide(const wchar_t* format, va_list args);
