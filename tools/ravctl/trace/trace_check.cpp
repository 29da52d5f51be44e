#include "ravctl/trace/trace_check.h"

#include <charconv>

#include "ravctl/trace/trace_entry.h"

namespace ravctl {

namespace {

constexpr std::string_view kSizeName = "Ring Buffer Size           : ";

class TraceChecker {
 public:
  explicit TraceChecker(const TraceFile& file) : m_File(file), m_Layout(file.Layout()) {}

  Findings Run() {
    if (m_File.HasNoEntry()) {
      Say(false, "kind", "not a trace: no line of it begins an entry");
      return m_Findings;
    }
    Say(true, "kind", m_Layout.kind == TraceKind::kRingBuffer ? "ring buffer" : "log file");
    if (!m_File.Damage().empty()) Say(false, "packing", "cannot be unpacked to its end: " + m_File.Damage());
    if (m_Layout.kind == TraceKind::kRingBuffer) {
      VerifyHeader();
      VerifyStructure();
    }
    VerifyEntries();
    return m_Findings;
  }

 private:
  void Say(bool isGood, const char* check, const std::string& what) {
    const char* toDo = isGood ? "" : "the next start of its application makes it anew";
    m_Findings.push_back({isGood ? Severity::kGood : Severity::kBad, check, m_File.Path(), what, toDo});
  }

  void VerifyHeader() {
    if (m_Layout.header.empty()) {
      Say(false, "header", "missing");
    } else {
      Say(m_Layout.hasHeaderEnd, "header", m_Layout.hasHeaderEnd ? "complete" : "its end is missing");
    }
    std::string_view size;
    ForEachEntry(m_Layout.header, [&size](std::string_view whole) {
      const std::string_view text = ParseEntry(whole).text;
      if (text.starts_with(kSizeName)) size = text.substr(kSizeName.size());
      return true;
    });
    uint64_t told = 0;
    std::from_chars(size.data(), size.data() + size.size(), told);
    const uint64_t real = m_File.Content().size();
    // The filler is written in whole lines of 1 KiB.
    const bool isRight = (told + kFillerLength - 1) / kFillerLength * kFillerLength == real;
    if (told != 0) {
      Say(isRight, "size", std::to_string(real) + " bytes" + (isRight ? "" : ", its header says " + std::string(size)));
    }
  }

  void VerifyStructure() {
    const std::string_view begin = m_Layout.beginLine;
    const auto at = static_cast<size_t>(begin.data() - m_File.Content().data());
    const bool isAligned = !begin.empty() && at % kFillerLength == 0;
    Say(isAligned, "begin",
        begin.empty() ? "the Begin line is missing"
        : isAligned   ? "at " + std::to_string(at)
                      : "at " + std::to_string(at) + ", not at a multiple of 1024");
    Say(m_Layout.marker.has_value(), "end marker",
        m_Layout.marker ? "at " + std::to_string(*m_Layout.marker)
                        : "missing: the writer was killed within an entry, or the file is cut");
    if (m_Layout.hasWrapped && m_Layout.marker) {
      const std::string_view content = m_File.Content();
      const size_t dots = content.find_last_not_of('.');
      const bool isWhole = dots == std::string_view::npos || content[dots] == '\n';
      Say(isWhole, "tail", isWhole ? "whole" : "the oldest cycle ends within an entry: the file is cut");
    }
  }

  void VerifyEntries() {
    uint64_t entries = 0;
    uint64_t zeros = 0;
    std::string_view previous;
    std::string_view backTime;
    for (const std::string_view part : m_Layout.parts) {
      ForEachEntry(part, [&](std::string_view whole) {
        ++entries;
        if (whole.find('\0') != std::string_view::npos) ++zeros;
        const std::string_view time = whole.substr(0, kTimeLength);
        if (time < previous && backTime.empty()) backTime = time;
        previous = time;
        return true;
      });
    }
    Say(true, "entries", std::to_string(entries));
    if (zeros != 0) Say(false, "zeros", std::to_string(zeros) + " entries hold zeros: pages never reached the disk");
    // A changed clock is no fault of the file.
    Say(true, "times", backTime.empty() ? "in order" : "go back at " + std::string(backTime) + ": the clock was set");
    const std::string_view content = m_File.Content();
    if (m_Layout.kind == TraceKind::kLogFile && !content.empty() && !content.ends_with('\n')) {
      Say(false, "tail", "the last line has no end: the file is cut");
    }
    if (content.starts_with('\0')) Say(false, "hole", "the file begins with zeros: it was cut while it was written");
  }

  const TraceFile& m_File;
  const TraceLayout& m_Layout;
  Findings m_Findings;
};

}  // namespace

Findings CheckTrace(const TraceFile& file) {
  return TraceChecker(file).Run();
}

}  // namespace ravctl
