#include "ravctl/report/page.h"

#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ravctl/base/error.h"
#include "ravctl/report/content_hash.h"

// The build names the folder. As it stands in the file, between two symbols.
#define EMBED(symbol, file)                                                                                     \
  asm(".section .rodata\n.global " #symbol ", " #symbol "_end\n" #symbol ":\n.incbin \"" RAVCTL_REPORT "/" file \
      "\"\n" #symbol "_end:\n.previous\n");                                                                     \
  extern "C" const char symbol[];                                                                               \
  extern "C" const char symbol##_end[];

EMBED(ravctl_page_html, "page.html")
EMBED(ravctl_page_css, "page.css")
EMBED(ravctl_draw_js, "draw.js")
EMBED(ravctl_pattern_js, "pattern.js")
EMBED(ravctl_summary_js, "summary.js")
EMBED(ravctl_hardware_js, "hardware.js")
EMBED(ravctl_timeline_js, "timeline.js")
EMBED(ravctl_trace_js, "trace.js")
EMBED(ravctl_page_js, "page.js")

namespace ravctl {

namespace {

constexpr size_t kBufferSize = size_t{1} << 20;
constexpr size_t kElementSize = size_t{256} << 10;  // of one with data, about

// Where things go in page.html.
constexpr std::string_view kPolicyPlace = "@POLICY@";
constexpr std::string_view kStylePlace = "@STYLE@";
constexpr std::string_view kScriptPlace = "@SCRIPT@";
constexpr std::string_view kDataPlace = "@DATA@";

// In the order in which they run; the last one draws.
std::string Scripts() {
  std::string scripts;
  scripts.append(ravctl_draw_js, ravctl_draw_js_end);
  scripts.append(ravctl_pattern_js, ravctl_pattern_js_end);
  scripts.append(ravctl_summary_js, ravctl_summary_js_end);
  scripts.append(ravctl_hardware_js, ravctl_hardware_js_end);
  scripts.append(ravctl_timeline_js, ravctl_timeline_js_end);
  scripts.append(ravctl_trace_js, ravctl_trace_js_end);
  scripts.append(ravctl_page_js, ravctl_page_js_end);
  return scripts;
}

void Put(std::string_view place, const std::string& text, std::string& frame) {
  frame.replace(frame.find(place), place.size(), text);
}

// page.html with everything but the data.
std::string Frame() {
  const std::string style(ravctl_page_css, ravctl_page_css_end);
  const std::string scripts = Scripts();
  std::string frame(ravctl_page_html, ravctl_page_html_end);
  Put(kPolicyPlace,
      "default-src 'none'; base-uri 'none'; form-action 'none'; style-src '" + ContentHash(style) + "'; script-src '" +
          ContentHash(scripts) + "'",
      frame);
  Put(kStylePlace, style, frame);
  Put(kScriptPlace, scripts, frame);
  return frame;
}

}  // namespace

PageWriter::PageWriter(int fd, std::string name) : m_Fd(fd), m_Name(std::move(name)), m_Frame(Frame()) {
  WriteFrame();
}

void PageWriter::BeginAnswer(std::string_view id) {
  EndElement();
  m_Answer = id;
  BeginElement();
}

void PageWriter::AddJson(std::string_view json) {
  while (m_ElementSize + json.size() > kElementSize) {
    const size_t room = kElementSize - std::min(m_ElementSize, kElementSize);
    const size_t end = json.find('\n', std::min(room, json.size()));
    if (end == std::string_view::npos) break;
    WriteJson(json.substr(0, end));
    json.remove_prefix(end);
    EndElement();
    BeginElement();
  }
  WriteJson(json);
}

void PageWriter::BeginElement() {
  Write("<script type=\"application/json\" data-answer=\"" + m_Answer + "\">");
  m_ElementSize = 0;
}

void PageWriter::EndElement() {
  if (!m_Answer.empty()) Write("</script>\n");
}

void PageWriter::WriteJson(std::string_view json) {
  m_ElementSize += json.size();
  for (size_t bracket = 0; (bracket = json.find('<')) != std::string_view::npos; json.remove_prefix(bracket + 1)) {
    Write(json.substr(0, bracket));
    Write("\\u003c");
  }
  Write(json);
}

void PageWriter::AddScripts() {
  WriteFrame();
}

void PageWriter::End() {
  WriteFrame();
  Flush();
}

// Up to the next place of data.
void PageWriter::WriteFrame() {
  EndElement();
  m_Answer.clear();
  const size_t place = std::min(m_Frame.find(kDataPlace), m_Frame.size());
  Write(std::string_view(m_Frame).substr(0, place));
  m_Frame.erase(0, place + kDataPlace.size());
}

void PageWriter::Write(std::string_view text) {
  m_Buffer += text;
  m_Bytes += text.size();
  if (m_Buffer.size() > kBufferSize) Flush();
}

void PageWriter::Flush() {
  for (size_t at = 0; at < m_Buffer.size();) {
    const ssize_t written = ::write(m_Fd, m_Buffer.data() + at, m_Buffer.size() - at);
    if (written < 0 && errno != EINTR) {
      throw CommandError(ExitCode::kNotWritten, "cannot write the report", m_Name + ": " + std::strerror(errno), "");
    }
    if (written > 0) at += static_cast<size_t>(written);
  }
  m_Buffer.clear();
}

}  // namespace ravctl
