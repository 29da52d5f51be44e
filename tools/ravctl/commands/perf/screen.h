#pragma once

#include <string_view>

#include "ravctl/answer/output.h"

namespace ravctl {

// The whole terminal as a sheet to draw on. What was there before comes back with the end of the object. One object at
// a time; the signals that concern a terminal are the caller's (SignalWatch).
class Screen {
 public:
  // Throws CommandError when there is no terminal that can be drawn on.
  explicit Screen(bool hasColors);
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  int Lines() const;
  int Columns() const;

  // The window has another size.
  void Resize();
  // Gives the terminal back for a while, and takes it again.
  void Suspend();
  void Resume();

  // Erase, Put... and Show make a picture; only what differs from the last one is sent. The text is cut at the window's
  // edge, and what lies outside is not drawn.
  void Erase();
  void Put(int line, int column, Color color, std::string_view text);
  void Show();

  // The next key that was pressed, 0 when none was.
  int Key() const;

 private:
  void* m_Screen;
  bool m_HasColors;
};

// The longest beginning of the text that takes no more columns than that.
std::string_view Clipped(std::string_view text, int columns);

}  // namespace ravctl
