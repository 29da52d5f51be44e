#pragma once

#include <deque>
#include <string>
#include <vector>

#include "ravctl/commands/perf/graph.h"
#include "ravctl/commands/perf/sampler.h"
#include "ravctl/commands/perf/screen.h"

namespace ravctl {

// The picture of perf top: the histories of processor, memory and each network interface, drawn as large as the window
// allows. One thread.
class PerfView {
 public:
  // intervalSeconds: between two samples.
  PerfView(GraphStyle style, double intervalSeconds);

  void Add(const PerfSample& sample);
  // More or less time in the same width.
  void ZoomOut();
  void ZoomIn();

  void Draw(Screen& screen) const;

 private:
  using Values = std::deque<double>;  // one a sample, negative where nothing was measured

  struct InterfaceHistory {
    std::string name;
    Values received, sent;
  };

  // One graph of a block, with its own scale.
  struct Graph {
    std::string label;
    const Values* values = nullptr;
    bool isPercent = false;
    Color color = Color::kNone;
  };

  // Title and graphs of one object.
  struct Block {
    std::string name;
    std::string title;
    std::vector<Graph> graphs;
    std::string text = {};  // in front of the line when there is room for one only
  };

  std::vector<Block> Blocks() const;
  Block CpuBlock() const;
  Block MemoryBlock() const;
  Block NetworkBlock(const NetworkLoad& load, const InterfaceHistory& history) const;
  InterfaceHistory& HistoryOf(const std::string& name);
  // The newest value of a column is the mean of its samples, so that a column does not change once it is full.
  std::vector<double> Columns(const Values& values, int columns) const;
  std::string Heading(int columns) const;
  void DrawBlock(Screen& screen, const Block& block, int line, int lines) const;
  void DrawGraph(Screen& screen, const Graph& graph, int line, int lines) const;
  void DrawCompact(Screen& screen, const Block& block, int line) const;

  GraphStyle m_Style;
  double m_Interval;
  size_t m_Zoom = 1;  // position in the table of samples a column
  size_t m_Samples = 0;
  PerfSample m_Newest;
  Values m_Cpu, m_Memory;
  std::vector<InterfaceHistory> m_Interfaces;
};

}  // namespace ravctl
