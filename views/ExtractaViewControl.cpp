#include "views/ExtractaViewControl.h"

namespace {

// extracta reads control files with CR LF line ends. Text mode produces them
// on some platforms only, so every line feed is written as CR LF explicitly.
void WriteWithCrLf(const std::string& text, std::ostream& out) {
  std::string bytes;
  bytes.reserve(text.size() + text.size() / 8);
  for (const char c : text) {
    if (c == '\n') bytes += '\r';
    bytes += c;
  }
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

std::string JoinLines(const std::vector<std::string>& lines) {
  std::string joined;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i > 0) joined += "\n\t";
    joined += lines[i];
  }
  return joined;
}

std::string FormatViewBlock(const ExtractaViewDef& def) {
  std::string block = def.extractaView + "\n\n\t";
  const std::string common = JoinLines(def.conditions);
  // Selected nets take the place of the view's own alternatives.
  const std::vector<std::string>& alts =
      def.netAlternatives.empty() ? def.alternatives : def.netAlternatives;
  if (!alts.empty()) {
    // extracta has no brackets: every alternative carries all the conditions.
    for (std::size_t i = 0; i < alts.size(); ++i) {
      if (i > 0) block += "\n\tOR\n\t";
      block += alts[i];
      block += "\n\t";
      block += common;
    }
    block += "\n\n\t";
  } else if (!common.empty()) {
    block += common;
    block += "\n\n\t";
  }
  if (!def.fields.empty()) {
    block += JoinLines(def.fields);
    block += "\n";
  }
  block += "\nEND\n\n";
  return block;
}

void WriteViewBlock(const ExtractaViewDef& def, std::ostream& out) {
  WriteWithCrLf(FormatViewBlock(def), out);
}

bool WriteControlFile(std::ofstream& out, const ViewSet& views, const std::vector<AString>& nets) {
  if (!out.is_open() || out.bad()) return false;
  const int count = static_cast<int>(views.GetCount());
  for (int n = 0; n < count; ++n) WriteViewBlock(ExtractaViewDef(views.GetAt(n), nets, false), out);
  return true;
}

AString MakeViewFileName(ViewType type, const AString& suffix) {
  return ViewTypeName(type) + suffix + AString(L".txt");
}

void CollectViewFiles(const ViewSet& views, const LongFileName& directory,
                      std::vector<ActiveView>& out) {
  const int count = static_cast<int>(views.GetCount());
  for (int n = 0; n < count; ++n) {
    const ViewType type = views.GetAt(n);
    out.push_back({type, directory.FilePath() + MakeViewFileName(type, AString())});
  }
}
