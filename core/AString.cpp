#include "core/AString.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>

namespace {

// Invalid UTF-8 bytes travel as these code points and are written back as the
// same bytes, so no file name or net name is altered by a round trip.
constexpr wchar_t kEscapeBase = 0xDC00;

bool IsContinuation(unsigned char c) { return (c & 0xC0) == 0x80; }

void AppendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

// Appends the wide text of one conversion, padded to the field width.
void AppendPadded(std::wstring& out, const std::wstring& text, bool leftAlign, int width) {
  const int pad = width > static_cast<int>(text.size()) ? width - static_cast<int>(text.size()) : 0;
  if (!leftAlign) out.append(pad, L' ');
  out += text;
  if (leftAlign) out.append(pad, L' ');
}

}  // namespace

std::wstring VFormatWide(const wchar_t* format, va_list args) {
  std::wstring out;
  if (!format) return out;
  for (const wchar_t* p = format; *p; ++p) {
    if (*p != L'%') {
      out += *p;
      continue;
    }
    const wchar_t* specStart = p++;
    std::string printfConversion = "%";  // the narrow printf form of a numeric conversion
    bool leftAlign = false;
    while (*p && std::wcschr(L"-+ #0", *p)) {
      leftAlign |= *p == L'-';
      printfConversion += static_cast<char>(*p++);
    }
    int width = 0;
    if (*p == L'*') {
      width = va_arg(args, int);
      if (width < 0) {
        leftAlign = true;
        width = -width;
      }
      printfConversion += std::to_string(width);
      ++p;
    } else {
      while (*p >= L'0' && *p <= L'9') {
        width = width * 10 + (*p - L'0');
        printfConversion += static_cast<char>(*p++);
      }
    }
    int precision = -1;
    if (*p == L'.') {
      printfConversion += '.';
      ++p;
      precision = 0;
      if (*p == L'*') {
        precision = va_arg(args, int);
        printfConversion += std::to_string(precision < 0 ? 0 : precision);
        ++p;
      } else {
        while (*p >= L'0' && *p <= L'9') {
          precision = precision * 10 + (*p - L'0');
          printfConversion += static_cast<char>(*p++);
        }
      }
    }
    std::string length;
    while (*p && std::wcschr(L"hlzjtL", *p)) length += static_cast<char>(*p++);
    const wchar_t conversion = *p;
    if (!conversion) {
      out.append(specStart);
      break;
    }
    char buffer[512];
    switch (conversion) {
      case L'%':
        out += L'%';
        break;
      case L's':
      case L'S': {
        // In a wide format %s is wide text; %hs and %S are narrow.
        const bool narrow = conversion == L'S' || length == "h";
        std::wstring text;
        if (narrow) {
          const char* s = va_arg(args, const char*);
          text = s ? WidenText(s, std::char_traits<char>::length(s)) : L"(null)";
        } else {
          const wchar_t* s = va_arg(args, const wchar_t*);
          text = s ? s : L"(null)";
        }
        if (precision >= 0 && static_cast<int>(text.size()) > precision) text.resize(precision);
        AppendPadded(out, text, leftAlign, width);
        break;
      }
      case L'c': {
        const wchar_t c = static_cast<wchar_t>(va_arg(args, int));
        AppendPadded(out, std::wstring(1, c), leftAlign, width);
        break;
      }
      case L'd':
      case L'i':
      case L'u':
      case L'x':
      case L'X':
      case L'o': {
        // The length modifier decides only how the argument is taken from the
        // list; the value is then printed at the widest length.
        const bool isSigned = conversion == L'd' || conversion == L'i';
        long long signedValue = 0;
        unsigned long long unsignedValue = 0;
        if (length == "ll" || length == "j") {
          if (isSigned)
            signedValue = va_arg(args, long long);
          else
            unsignedValue = va_arg(args, unsigned long long);
        } else if (length == "l" || length == "z" || length == "t") {
          if (isSigned)
            signedValue = va_arg(args, long);
          else
            unsignedValue = va_arg(args, unsigned long);
        } else {
          if (isSigned)
            signedValue = va_arg(args, int);
          else
            unsignedValue = va_arg(args, unsigned int);
        }
        printfConversion += "ll";
        printfConversion += static_cast<char>(conversion);
        if (isSigned)
          std::snprintf(buffer, sizeof buffer, printfConversion.c_str(), signedValue);
        else
          std::snprintf(buffer, sizeof buffer, printfConversion.c_str(), unsignedValue);
        out += WidenText(buffer, std::char_traits<char>::length(buffer));
        break;
      }
      case L'f':
      case L'F':
      case L'e':
      case L'E':
      case L'g':
      case L'G':
      case L'a':
      case L'A':
        printfConversion += static_cast<char>(conversion);
        if (length == "L")
          std::snprintf(buffer, sizeof buffer, ("%L" + printfConversion.substr(1)).c_str(),
                        va_arg(args, long double));
        else
          std::snprintf(buffer, sizeof buffer, printfConversion.c_str(), va_arg(args, double));
        out += WidenText(buffer, std::char_traits<char>::length(buffer));
        break;
      case L'p':
        printfConversion += 'p';
        std::snprintf(buffer, sizeof buffer, printfConversion.c_str(), va_arg(args, void*));
        out += WidenText(buffer, std::char_traits<char>::length(buffer));
        break;
      default:  // not a conversion: keep the text as written
        out.append(specStart, p + 1);
        break;
    }
  }
  return out;
}

std::wstring WidenText(const char* narrow, std::size_t length) {
  std::wstring out;
  out.reserve(length);
  const auto* s = reinterpret_cast<const unsigned char*>(narrow);
  std::size_t i = 0;
  while (i < length) {
    const unsigned char c = s[i];
    if (c < 0x80) {
      out += static_cast<wchar_t>(c);
      ++i;
      continue;
    }
    int extra = 0;
    uint32_t cp = 0, minimum = 0;
    if ((c & 0xE0) == 0xC0) {
      extra = 1, cp = c & 0x1F, minimum = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
      extra = 2, cp = c & 0x0F, minimum = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
      extra = 3, cp = c & 0x07, minimum = 0x10000;
    }
    bool valid = extra > 0;
    for (int k = 1; valid && k <= extra; ++k) {
      if (i + k >= length || !IsContinuation(s[i + k]))
        valid = false;
      else
        cp = (cp << 6) | (s[i + k] & 0x3F);
    }
    if (valid && (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) valid = false;
    if (valid) {
      // A 16-bit wchar_t (Windows) holds the code points beyond the first
      // plane as surrogate pairs (UTF-16).
      if (sizeof(wchar_t) == 2 && cp > 0xFFFF) {
        out += static_cast<wchar_t>(0xD800 + ((cp - 0x10000) >> 10));
        out += static_cast<wchar_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
      } else {
        out += static_cast<wchar_t>(cp);
      }
      i += extra + 1;
    } else {
      out += static_cast<wchar_t>(kEscapeBase + c);
      ++i;
    }
  }
  return out;
}

std::string NarrowText(const std::wstring& wide) {
  std::string out;
  out.reserve(wide.size());
  for (std::size_t i = 0; i < wide.size(); ++i) {
    const auto cp = static_cast<uint32_t>(wide[i]);
    if (sizeof(wchar_t) == 2 && cp >= 0xD800 && cp <= 0xDBFF && i + 1 < wide.size()) {
      const auto low = static_cast<uint32_t>(wide[i + 1]);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        AppendUtf8(out, 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00));
        ++i;
        continue;
      }
    }
    if (cp >= 0xDC80 && cp <= 0xDCFF)
      out += static_cast<char>(cp - kEscapeBase);
    else if ((cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF)
      out += '?';
    else
      AppendUtf8(out, cp);
  }
  return out;
}

AString::AString(const char* narrow)
    : text_(narrow ? WidenText(narrow, std::char_traits<char>::length(narrow)) : std::wstring()) {}

AString::AString(const char* narrow, std::size_t length) : text_(WidenText(narrow, length)) {}

AString::AString(const std::string& narrow) : text_(WidenText(narrow.data(), narrow.size())) {}

AString::AString(const wchar_t* wide) : text_(wide ? wide : L"") {}

AString::AString(std::wstring wide) : text_(std::move(wide)) {}

void AString::Format(const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  text_ = VFormatWide(format, args);
  va_end(args);
}

// Only ASCII letters fold: the texts matched this way are the program's
// options, and the result must not depend on the locale a machine has (or
// lacks), nor let a non-ASCII letter stand in for an option's letter.
bool AString::MatchNoCase(const AString& other) const {
  if (text_.size() != other.text_.size()) return false;
  const auto fold = [](wchar_t c) { return c >= L'A' && c <= L'Z' ? c - L'A' + L'a' : c; };
  for (std::size_t i = 0; i < text_.size(); ++i) {
    if (fold(text_[i]) != fold(other.text_[i])) return false;
  }
  return true;
}

std::vector<AString> AString::TokenizeString(const AString& separators,
                                             bool keepEmptyPieces) const {
  std::vector<AString> pieces;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = text_.find_first_of(separators.text_, start);
    const std::size_t stop = end == std::wstring::npos ? text_.size() : end;
    if (stop > start || keepEmptyPieces) pieces.emplace_back(text_.substr(start, stop - start));
    if (end == std::wstring::npos) break;
    start = end + 1;
  }
  return pieces;
}

std::string VEL_ANSI(const AString& text) { return NarrowText(text.wstr()); }

std::wstring FormatWide(const wchar_t* format, ...) {
  va_list args;
  va_start(args, format);
  std::wstring text = VFormatWide(format, args);
  va_end(args);
  return text;
}
