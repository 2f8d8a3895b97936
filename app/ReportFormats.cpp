#include "app/ReportFormats.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <sstream>

#include "process/RunObserver.h"

namespace {

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (u < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
      out += escaped;
    } else {
      out += c;  // UTF-8 passes as it is
    }
  }
  return out + "\"";
}

std::string Html(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string Fixed(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string Seconds(int64_t microseconds) { return Fixed(microseconds / 1e6, 3) + " s"; }

std::string Bytes(uint64_t bytes) {
  const char* const units[] = {"B", "KB", "MB", "GB", "TB"};
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1000 && unit < 4) {
    value /= 1000;
    ++unit;
  }
  return unit == 0 ? std::to_string(bytes) + " B" : Fixed(value, 1) + " " + units[unit];
}

int64_t EndOf(const ReportChild& child, const RunRecord& run) {
  return child.ended ? child.endUs : run.endUs;
}

std::string ExitText(const ReportChild& child) {
  if (!child.ended) return "running";
  if (child.exitCode == kEndedByRun) return "ended by the run";
  return std::to_string(child.exitCode);
}

bool Failed(const ReportChild& child) {
  return child.ended && child.exitCode != 0 && child.exitCode != kEndedByRun;
}

// The lanes, node by node and slot by slot.
struct Lanes {
  std::vector<std::string> names;
  std::map<std::string, int> index;
  std::map<std::string, int> nodePid;
  explicit Lanes(const RunRecord& run) {
    std::map<std::pair<std::string, uint32_t>, std::string> sorted;
    for (const ReportChild& child : run.children) {
      sorted[{child.node, child.slot}] = LaneName(child);
      if (!nodePid.count(child.node)) nodePid[child.node] = static_cast<int>(nodePid.size()) + 2;
    }
    for (const auto& [place, name] : sorted) {
      index[name] = static_cast<int>(names.size());
      names.push_back(name);
    }
  }
};

}  // namespace

int64_t ChildrenMicroseconds(const RunRecord& run) {
  int64_t total = 0;
  for (const ReportChild& child : run.children) total += EndOf(child, run) - child.startUs;
  return total;
}

std::string LaneName(const ReportChild& child) {
  return (child.node.empty() ? "" : child.node + " ") + "slot " + std::to_string(child.slot);
}

std::string TraceJson(const RunRecord& run) {
  const Lanes lanes(run);
  std::ostringstream out;
  out << "{\"displayTimeUnit\":\"ms\",\n\"otherData\":{\"program\":" << JsonString(run.version)
      << ",\"design\":" << JsonString(run.design)
      << ",\"destination\":" << JsonString(run.destination)
      << ",\"outcome\":" << JsonString(run.outcome) << ",\"launcher\":" << JsonString(run.launcher)
      << ",\"slots\":" << run.slots << ",\"start_us\":" << run.startUs
      << ",\"wall_us\":" << run.endUs - run.startUs
      << ",\"children_us\":" << ChildrenMicroseconds(run)
      << ",\"peak_memory_bytes\":" << run.peakMemoryBytes << "},\n\"traceEvents\":[\n";
  // The lanes named first: the run's own, then a process per node and a
  // thread per slot.
  out << "{\"ph\":\"M\",\"name\":\"process_name\",\"pid\":1,\"tid\":0,\"args\":{\"name\":"
      << JsonString("VelExtracta") << "}},\n"
      << "{\"ph\":\"M\",\"name\":\"thread_name\",\"pid\":1,\"tid\":1,\"args\":{\"name\":"
      << JsonString("run steps") << "}}";
  for (const auto& [node, pid] : lanes.nodePid)
    out << ",\n{\"ph\":\"M\",\"name\":\"process_name\",\"pid\":" << pid
        << ",\"tid\":0,\"args\":{\"name\":" << JsonString(node.empty() ? "this machine" : node)
        << "}}";
  std::map<std::pair<int, uint32_t>, bool> named;
  for (const ReportChild& child : run.children) {
    const int pid = lanes.nodePid.at(child.node);
    if (named[{pid, child.slot}]) continue;
    named[{pid, child.slot}] = true;
    out << ",\n{\"ph\":\"M\",\"name\":\"thread_name\",\"pid\":" << pid
        << ",\"tid\":" << child.slot + 1 << ",\"args\":{\"name\":" << JsonString(LaneName(child))
        << "}}";
  }
  for (const ReportChild& child : run.children) {
    out << ",\n{\"ph\":\"X\",\"cat\":\"extracta\",\"name\":" << JsonString(child.label)
        << ",\"ts\":" << child.startUs << ",\"dur\":" << EndOf(child, run) - child.startUs
        << ",\"pid\":" << lanes.nodePid.at(child.node) << ",\"tid\":" << child.slot + 1
        << ",\"args\":{\"view\":" << JsonString(child.views)
        << ",\"exit_code\":" << (child.ended ? std::to_string(child.exitCode) : "null")
        << ",\"ended_by_run\":" << (child.ended && child.exitCode == kEndedByRun ? "true" : "false")
        << ",\"control_file\":" << JsonString(child.controlFile) << ",\"output_files\":[";
    for (std::size_t i = 0; i < child.outputFiles.size(); ++i)
      out << (i ? "," : "") << JsonString(child.outputFiles[i]);
    out << "],\"output_file\":"
        << JsonString(child.outputFiles.empty() ? "" : child.outputFiles.front())
        << ",\"bytes\":" << child.bytes
        << ",\"records\":" << (child.records < 0 ? "null" : std::to_string(child.records))
        << ",\"node\":" << JsonString(child.node) << ",\"slot\":" << child.slot
        << ",\"process_id\":" << child.processId << "}}";
  }
  for (const ReportStep& step : run.steps)
    out << ",\n{\"ph\":\"X\",\"cat\":\"step\",\"name\":" << JsonString(step.name)
        << ",\"ts\":" << step.startUs << ",\"dur\":" << step.endUs - step.startUs
        << ",\"pid\":1,\"tid\":1,\"args\":{}}";
  out << "\n]}\n";
  return out.str();
}

std::string ReportPage(const RunRecord& run) {
  const Lanes lanes(run);
  const double wall = std::max<int64_t>(run.endUs - run.startUs, 1);
  // The timeline: a label column, then the run's length across the rest.
  constexpr int kWidth = 1340, kLabel = 150, kLane = 26, kTop = 26;
  const int plot = kWidth - kLabel - 10;
  const int height = kTop + kLane * static_cast<int>(lanes.names.size() + 1) + 6;
  const auto x = [&](int64_t us) {
    return kLabel + plot * std::clamp((us - run.startUs) / wall, 0.0, 1.0);
  };

  std::ostringstream svg;
  // Inline in the page, it needs no namespace: nothing names another site.
  svg << "<svg viewBox=\"0 0 " << kWidth << " " << height << "\" width=\"" << kWidth
      << "\" height=\"" << height << "\" role=\"img\""
      << " aria-label=\"timeline\">\n"
      << "<defs><pattern id=\"ended\" width=\"6\" height=\"6\" patternUnits=\"userSpaceOnUse\""
      << " patternTransform=\"rotate(45)\"><rect width=\"6\" height=\"6\" fill=\"#c8c8c8\"/>"
      << "<line x1=\"0\" y1=\"0\" x2=\"0\" y2=\"6\" stroke=\"#999\" stroke-width=\"3\"/>"
      << "</pattern></defs>\n";
  // A tick about every tenth of the run, at a round number of seconds.
  const double seconds = wall / 1e6;
  double tick = 3600;
  for (const double step :
       {0.001, 0.002, 0.005, 0.01, 0.02, 0.05,  0.1,   0.2,   0.5,    1.0,   2.0,
        5.0,   10.0,  20.0,  30.0, 60.0, 120.0, 300.0, 600.0, 1800.0, 3600.0}) {
    if (seconds / step > 12) continue;
    tick = step;
    break;
  }
  for (double at = 0; at <= seconds + 1e-9; at += tick) {
    const double px = kLabel + plot * at / seconds;
    svg << "<line class=\"tick\" x1=\"" << Fixed(px, 1) << "\" y1=\"" << kTop - 6 << "\" x2=\""
        << Fixed(px, 1) << "\" y2=\"" << height - 4 << "\"/><text class=\"axis\" x=\""
        << Fixed(px, 1) << "\" y=\"" << kTop - 10 << "\">" << Fixed(at, tick < 1 ? 3 : 0)
        << " s</text>\n";
  }
  std::vector<std::string> laneNames = {"VelExtracta"};
  laneNames.insert(laneNames.end(), lanes.names.begin(), lanes.names.end());
  for (std::size_t lane = 0; lane < laneNames.size(); ++lane)
    svg << "<text class=\"lane\" x=\"6\" y=\"" << kTop + kLane * lane + 17 << "\">"
        << Html(laneNames[lane]) << "</text>\n";

  const auto bar = [&](int lane, int64_t from, int64_t to, const std::string& cls,
                       const std::string& label, const std::string& title) {
    const double left = x(from), width = std::max(x(to) - left, 2.0);
    const int top = kTop + kLane * lane + 3;
    svg << "<g class=\"" << cls << "\"><title>" << Html(title) << "</title><rect x=\""
        << Fixed(left, 1) << "\" y=\"" << top << "\" width=\"" << Fixed(width, 1) << "\" height=\""
        << kLane - 6 << "\" rx=\"3\"/>";
    // As much of the label as the bar holds (about 6.5 pixels a character).
    const std::size_t fits = static_cast<std::size_t>(std::max(0.0, (width - 6) / 6.5));
    if (fits >= 3) {
      const std::string shown = label.size() <= fits ? label : label.substr(0, fits - 1) + "\u2026";
      svg << "<text x=\"" << Fixed(left + 4, 1) << "\" y=\"" << top + 14 << "\">" << Html(shown)
          << "</text>";
    }
    svg << "</g>\n";
  };
  for (const ReportStep& step : run.steps)
    bar(0, step.startUs, step.endUs, "step", step.name,
        step.name + ": " + Seconds(step.endUs - step.startUs));
  for (const ReportChild& child : run.children) {
    const std::string cls = !child.ended                    ? "child running"
                            : Failed(child)                 ? "child failed"
                            : child.exitCode == kEndedByRun ? "child stopped"
                                                            : "child";
    const std::string label =
        Failed(child) ? child.label + " (exit " + ExitText(child) + ")" : child.label;
    bar(1 + lanes.index.at(LaneName(child)), child.startUs, EndOf(child, run), cls, label,
        child.label + " on " + LaneName(child) + ": " + Seconds(EndOf(child, run) - child.startUs) +
            ", exit " + ExitText(child));
  }
  svg << "</svg>";

  std::ostringstream page;
  page << "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
       << "<title>VelExtracta run: " << Html(run.design) << "</title>\n<style>\n"
       << "body{font:13px/1.35 system-ui,sans-serif;margin:16px 20px;color:#1d2430}\n"
       << "h1{font-size:17px;margin:0 0 4px}\n"
       << ".outcome{font-weight:600}.bad{color:#b3261e}.good{color:#1e7b34}\n"
       << "svg{display:block;margin:8px 0 14px;max-width:100%;height:auto;"
          "border:1px solid #d8dde6;background:#fbfcfe}\n"
       << "svg text{font:11px system-ui,sans-serif;fill:#1d2430}\n"
       << "svg .axis{fill:#6b7280;text-anchor:middle}svg .lane{font-weight:600}\n"
       << ".tick{stroke:#e5e8ee}.child rect{fill:#6d9eeb}.step rect{fill:#f2b84b}\n"
       << ".failed rect{fill:#d64545}.failed text{fill:#fff;font-weight:700}\n"
       << ".stopped rect{fill:url(#ended)}.running rect{fill:#a7c4f2}\n"
       << "dl{display:grid;grid-template-columns:max-content 1fr;gap:2px 14px;margin:0 0 12px}"
          "dt{color:#6b7280}dd{margin:0}\n"
       << "table{border-collapse:collapse}th,td{padding:2px 10px;text-align:left;"
          "border-bottom:1px solid #e5e8ee}td.n{text-align:right}"
          "tr.failed td{background:#fbe3e1;color:#b3261e;font-weight:600}\n"
       << "</style></head><body>\n"
       << "<h1>VelExtracta run of " << Html(run.design) << "</h1>\n<div class=\"outcome "
       << (run.succeeded ? "good" : "bad") << "\">" << Html(run.outcome) << "</div>\n"
       << svg.str() << "\n<dl>\n<dt>design</dt><dd>" << Html(run.design)
       << "</dd>\n<dt>destination</dt><dd>" << Html(run.destination)
       << "</dd>\n<dt>outcome</dt><dd>" << Html(run.outcome) << "</dd>\n<dt>wall time</dt><dd>"
       << Seconds(run.endUs - run.startUs) << "</dd>\n<dt>children's time</dt><dd>"
       << Seconds(ChildrenMicroseconds(run)) << " (" << run.children.size()
       << " extracta processes)</dd>\n<dt>slots</dt><dd>" << run.slots
       << (run.launcher.empty() ? " on this machine" : " through " + Html(run.launcher))
       << "</dd>\n<dt>peak memory</dt><dd>" << Bytes(run.peakMemoryBytes)
       << "</dd>\n<dt>program</dt><dd>" << Html(run.version) << "</dd>\n</dl>\n"
       << "<table>\n<tr><th>#</th><th>child</th><th>view</th><th>node</th><th>start</th>"
          "<th>length</th><th>exit code</th><th>output bytes</th><th>records</th></tr>\n";
  for (std::size_t i = 0; i < run.children.size(); ++i) {
    const ReportChild& child = run.children[i];
    page << "<tr" << (Failed(child) ? " class=\"failed\"" : "") << "><td class=\"n\">" << i + 1
         << "</td><td>" << Html(child.label) << "</td><td>" << Html(child.views) << "</td><td>"
         << Html(child.node.empty() ? "this machine" : child.node) << "</td><td class=\"n\">"
         << Seconds(child.startUs - run.startUs) << "</td><td class=\"n\">"
         << Seconds(EndOf(child, run) - child.startUs) << "</td><td>" << Html(ExitText(child))
         << "</td><td class=\"n\">" << child.bytes << "</td><td class=\"n\">"
         << (child.records < 0 ? std::string("-") : std::to_string(child.records))
         << "</td></tr>\n";
  }
  page << "</table>\n</body></html>\n";
  return page.str();
}
