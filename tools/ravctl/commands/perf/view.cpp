#include "ravctl/commands/perf/view.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "ravctl/answer/stream_table.h"
#include "ravctl/base/text.h"
#include "ravctl/network/links.h"

namespace ravctl {

namespace {

constexpr size_t kHistory = 3600;  // samples
constexpr auto kSamplesAColumn = std::to_array<size_t>({1, 2, 5, 10, 30, 60});
constexpr int kLabelWidth = 10;
constexpr int kNameWidth = 8;
constexpr int kTextWidth = 20;

void Append(std::deque<double>& values, double value) {
  if (values.size() == kHistory) values.pop_front();
  values.push_back(value);
}

std::string HostName() {
  std::array<char, 256> name{};
  return ::gethostname(name.data(), name.size() - 1) == 0 ? Printable(name.data()) : "";
}

// 144 => "2:24"
std::string Duration(double seconds) {
  const auto whole = static_cast<long>(seconds + 0.5);
  const std::string rest = std::to_string(whole % 60);
  return std::to_string(whole / 60) + (rest.size() == 1 ? ":0" : ":") + rest;
}

std::string PercentOrDash(int percent) {
  return percent < 0 ? "-" : std::to_string(percent) + "%";
}

std::string RateOrDash(const std::optional<uint64_t>& rate) {
  return rate ? RateText(*rate) : "-";
}

double ValueOf(const std::optional<uint64_t>& rate) {
  return rate ? static_cast<double>(*rate) : -1.0;
}

// Which part of the scale a line stands in tells its colour as well.
Color LevelColor(int line, int lines) {
  const int level = (lines - line) * 100 / lines;
  return level > 85 ? Color::kRed : level > 60 ? Color::kYellow : Color::kGreen;
}

std::string MeanAndPeak(const std::vector<double>& columns) {
  double sum = 0.0, peak = 0.0;
  size_t count = 0;
  for (const double value : columns) {
    if (value < 0.0) continue;
    sum += value;
    peak = std::max(peak, value);
    ++count;
  }
  if (count == 0) return "";
  const auto text = [](double value) { return std::to_string(static_cast<int>(value + 0.5)) + "%"; };
  return "mean " + text(sum / static_cast<double>(count)) + "  peak " + text(peak);
}

}  // namespace

PerfView::PerfView(GraphStyle style, double intervalSeconds) : m_Style(style), m_Interval(intervalSeconds) {}

void PerfView::Add(const PerfSample& sample) {
  m_Newest = sample;
  Append(m_Cpu, sample.cpu ? sample.cpu->used : -1.0);
  Append(m_Memory, sample.physical ? sample.physical->percent : -1.0);
  for (const NetworkLoad& load : sample.network) {
    InterfaceHistory& history = HistoryOf(load.name);
    Append(history.received, ValueOf(load.received));
    Append(history.sent, ValueOf(load.sent));
  }
  ++m_Samples;
  // One that is gone has no sample of this time.
  std::erase_if(m_Interfaces, [this](const InterfaceHistory& history) {
    return std::ranges::count(m_Newest.network, history.name, &NetworkLoad::name) == 0;
  });
}

PerfView::InterfaceHistory& PerfView::HistoryOf(const std::string& name) {
  const auto found = std::ranges::find(m_Interfaces, name, &InterfaceHistory::name);
  if (found != m_Interfaces.end()) return *found;
  const Values nothing(std::min(m_Samples, kHistory), -1.0);
  m_Interfaces.push_back({name, nothing, nothing});
  return m_Interfaces.back();
}

void PerfView::ZoomOut() {
  m_Zoom = std::min(m_Zoom + 1, kSamplesAColumn.size() - 1);
}

void PerfView::ZoomIn() {
  m_Zoom -= m_Zoom > 0 ? 1 : 0;
}

std::vector<double> PerfView::Columns(const Values& values, int columns) const {
  const size_t each = kSamplesAColumn[m_Zoom];
  std::vector<double> means(static_cast<size_t>(std::max(columns, 0)), -1.0);
  if (m_Samples == 0) return means;
  const size_t newestColumn = (m_Samples - 1) / each;
  size_t counted = 0;
  double sum = 0.0;
  for (size_t back = 0; back < values.size(); ++back) {
    const size_t number = m_Samples - 1 - back;
    const size_t columnsBack = newestColumn - number / each;
    if (columnsBack >= means.size()) break;
    const double value = values[values.size() - 1 - back];
    if (value >= 0.0) {
      sum += value;
      means[means.size() - 1 - columnsBack] = sum / static_cast<double>(++counted);
    }
    if (number % each == 0) {
      sum = 0.0;
      counted = 0;
    }
  }
  return means;
}

PerfView::Block PerfView::CpuBlock() const {
  Block block{.name = "CPU", .title = "not known", .graphs = {{"100%", &m_Cpu, true}}};
  if (!m_Newest.cpu) return block;
  const CpuLoad& load = *m_Newest.cpu;
  block.text = PercentOrDash(load.used);
  block.title =
      Padded(block.text, 5, false) + " user " + PercentOrDash(load.user) + "  kernel " + PercentOrDash(load.kernel);
  return block;
}

PerfView::Block PerfView::MemoryBlock() const {
  Block block{.name = "Memory", .title = "not known", .graphs = {{"100%", &m_Memory, true}}};
  if (!m_Newest.physical || !m_Newest.virtualMemory) return block;
  const auto amounts = [](const MemoryUse& use) { return HumanSize(use.used) + " of " + HumanSize(use.total); };
  block.text = PercentOrDash(m_Newest.physical->percent);
  block.title = Padded(block.text, 5, false) + " " + amounts(*m_Newest.physical) + "  virtual " +
                PercentOrDash(m_Newest.virtualMemory->percent) + " " + amounts(*m_Newest.virtualMemory);
  return block;
}

PerfView::Block PerfView::NetworkBlock(const NetworkLoad& load, const InterfaceHistory& history) const {
  Block block{
      .name = Printable(load.name),
      .title = "",
      .graphs = {{"in", &history.received, false, Color::kCyan}, {"out", &history.sent, false, Color::kMagenta}}};
  block.text = RateOrDash(load.received) + " " + RateOrDash(load.sent);
  block.title = "in " + Padded(RateOrDash(load.received), 8, false) + " out " + RateOrDash(load.sent);
  if (load.percent && load.speed) {
    block.title += "  " + PercentOrDash(*load.percent) + " of " + RateText(*load.speed);
  }
  return block;
}

std::vector<PerfView::Block> PerfView::Blocks() const {
  std::vector<Block> blocks = {CpuBlock(), MemoryBlock()};
  for (const InterfaceHistory& history : m_Interfaces)
    blocks.push_back(NetworkBlock(*std::ranges::find(m_Newest.network, history.name, &NetworkLoad::name), history));
  return blocks;
}

std::string PerfView::Heading(int columns) const {
  const double shown = m_Interval * static_cast<double>(kSamplesAColumn[m_Zoom]) * (columns - kLabelWidth - 1);
  const std::string time = m_Newest.time.empty() ? "" : m_Newest.time.substr(11, 8);
  std::string left = HostName() + "  " + time + "  last " + Duration(shown) + " min";
  const std::string right = "+ - zoom  q quits";
  const int room = columns - static_cast<int>(DisplayWidth(left)) - static_cast<int>(right.size());
  return room >= 2 ? left + std::string(static_cast<size_t>(room), ' ') + right : left;
}

void PerfView::Draw(Screen& screen) const {
  screen.Erase();
  screen.Put(0, 0, Color::kBold, Heading(screen.Columns()));
  const std::vector<Block> blocks = Blocks();
  const int room = std::max(screen.Lines() - 1, 0);
  const int count = static_cast<int>(blocks.size());
  // All with graphs where each has two lines for them below its title, all in a line each otherwise.
  const int lines = room >= 3 * count ? room / count : 1;
  int spare = lines > 1 ? room - lines * count : 0;
  int line = 1;
  for (const Block& block : blocks) {
    const bool isLastLine = line == screen.Lines() - 1;
    const auto left = blocks.size() - static_cast<size_t>(&block - blocks.data());
    if (lines == 1 && isLastLine && left > 1) {
      screen.Put(line, 0, Color::kNone, std::to_string(left) + " more: enlarge the window");
      break;
    }
    const int own = lines + (spare-- > 0 ? 1 : 0);
    DrawBlock(screen, block, line, own);
    line += own;
  }
  screen.Show();
}

void PerfView::DrawBlock(Screen& screen, const Block& block, int line, int lines) const {
  if (lines == 1) {
    DrawCompact(screen, block, line);
    return;
  }
  std::string title = block.title;
  if (block.graphs.front().isPercent) {
    title += "  " + MeanAndPeak(Columns(*block.graphs.front().values, screen.Columns() - kLabelWidth - 1));
  }
  const std::string name = Padded(block.name, kNameWidth, false) + " ";
  screen.Put(line, 0, Color::kBold, name);
  screen.Put(line, static_cast<int>(DisplayWidth(name)), Color::kNone, title);
  int at = line + 1;
  const int count = static_cast<int>(block.graphs.size());
  for (int number = 0; number < count; ++number) {
    const int rest = line + lines - at;
    const int own = (rest + count - number - 1) / (count - number);
    DrawGraph(screen, block.graphs[static_cast<size_t>(number)], at, own);
    at += own;
  }
}

void PerfView::DrawGraph(Screen& screen, const Graph& graph, int line, int lines) const {
  const std::vector<double> columns = Columns(*graph.values, screen.Columns() - kLabelWidth - 1);
  const double peak = columns.empty() ? 0.0 : *std::ranges::max_element(columns);
  const double top = graph.isPercent ? 100.0 : RoundedTop(peak);
  const std::string scale =
      graph.isPercent ? graph.label : Padded(graph.label, 4, false) + HumanSize(static_cast<uint64_t>(top)) + "/s";
  const std::vector<std::string> bars = DrawBars(columns, top, static_cast<size_t>(std::max(lines, 0)), m_Style);
  for (int number = 0; number < lines; ++number) {
    screen.Put(line + number, 0, Color::kGray, Padded(number == 0 ? scale : "", kLabelWidth, true));
    screen.Put(line + number, kLabelWidth, Color::kGray, m_Style == GraphStyle::kBlocks ? "│" : "|");
    screen.Put(line + number, kLabelWidth + 1, graph.isPercent ? LevelColor(number, lines) : graph.color,
               bars[static_cast<size_t>(number)]);
  }
}

void PerfView::DrawCompact(Screen& screen, const Block& block, int line) const {
  const std::string name = Padded(block.name, kNameWidth, false) + " ";
  const int at = static_cast<int>(DisplayWidth(name));
  screen.Put(line, 0, Color::kBold, name);
  screen.Put(line, at, Color::kNone, block.text);
  const int count = static_cast<int>(block.graphs.size());
  const int from = at + kTextWidth;
  const int width = (screen.Columns() - from) / count - 1;
  for (int number = 0; number < count && width > 0; ++number) {
    const Graph& graph = block.graphs[static_cast<size_t>(number)];
    const std::vector<double> columns = Columns(*graph.values, width);
    const double top = graph.isPercent ? 100.0 : RoundedTop(*std::ranges::max_element(columns));
    screen.Put(line, from + number * (width + 1), graph.isPercent ? Color::kGreen : graph.color,
               DrawBars(columns, top, 1, m_Style).front());
  }
}

}  // namespace ravctl
