#include "ravctl/commands/perf/screen.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>

#include "ravctl/answer/error.h"
#include "ravctl/answer/stream_table.h"

// Last: its names are short, and some are macros.
#define NCURSES_NOMACROS
#include <curses.h>

namespace ravctl {

namespace {

struct PairRow {
  Color color;
  short foreground;
};

// Pair numbers are positions, from 1 on.
constexpr auto kPairs = std::to_array<PairRow>({{Color::kRed, COLOR_RED},
                                                {Color::kYellow, COLOR_YELLOW},
                                                {Color::kGreen, COLOR_GREEN},
                                                {Color::kBlue, COLOR_BLUE},
                                                {Color::kCyan, COLOR_CYAN},
                                                {Color::kMagenta, COLOR_MAGENTA}});

chtype AttributeOf(Color color, bool hasColors) {
  if (color == Color::kBold) return A_BOLD;
  if (!hasColors) return A_NORMAL;
  if (color == Color::kGray) return A_DIM;
  for (size_t index = 0; index < kPairs.size(); ++index) {
    if (kPairs[index].color == color) return static_cast<chtype>(COLOR_PAIR(static_cast<int>(index + 1)));
  }
  return A_NORMAL;
}

// Takes the terminal; null when its type is unknown, or is one where the place of a character cannot be chosen.
SCREEN* TakeTerminal() {
  ::use_tioctl(true);  // the window's size counts, not what LINES and COLUMNS said when the shell started
  SCREEN* screen = ::newterm(nullptr, stdout, stdin);
  if (screen == nullptr) return nullptr;
  const char* move = ::tigetstr("cup");
  if (move != nullptr && move != reinterpret_cast<char*>(-1) && *move != '\0') return screen;
  ::endwin();
  ::delscreen(screen);
  return nullptr;
}

}  // namespace

Screen::Screen(bool hasColors) : m_Screen(TakeTerminal()), m_HasColors(hasColors) {
  if (m_Screen == nullptr) {
    const char* type = std::getenv("TERM");
    throw CommandError(ExitCode::kUsage, "the terminal cannot be drawn on",
                       std::string("TERM=") + (type != nullptr ? type : ""),
                       "set TERM to its type, or use ravctl perf --count 0");
  }
  ::cbreak();
  ::noecho();
  ::nodelay(stdscr, true);
  ::leaveok(stdscr, true);
  ::curs_set(0);
  m_HasColors = hasColors && ::has_colors() && ::start_color() == OK && ::use_default_colors() == OK;
  for (size_t index = 0; m_HasColors && index < kPairs.size(); ++index)
    ::init_pair(static_cast<short>(index + 1), kPairs[index].foreground, -1);
}

Screen::~Screen() {
  ::endwin();
  ::delscreen(static_cast<SCREEN*>(m_Screen));
}

int Screen::Lines() const {
  return getmaxy(stdscr);
}

int Screen::Columns() const {
  return getmaxx(stdscr);
}

void Screen::Resize() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
    ::resizeterm(size.ws_row, size.ws_col);
    ::clearok(curscr, true);  // what the terminal made of the old picture is unknown
  }
}

void Screen::Suspend() {
  ::endwin();
}

void Screen::Resume() {
  ::clearok(curscr, true);
  ::refresh();
  ::curs_set(0);
}

void Screen::Erase() {
  ::erase();
}

void Screen::Put(int line, int column, Color color, std::string_view text) {
  if (line < 0 || line >= Lines() || column < 0 || column >= Columns()) return;
  const std::string_view shown = Clipped(text, Columns() - column);
  ::attrset(static_cast<int>(AttributeOf(color, m_HasColors)));
  ::mvaddnstr(line, column, shown.data(), static_cast<int>(shown.size()));
  ::attrset(A_NORMAL);
}

void Screen::Show() {
  ::refresh();
}

int Screen::Key() const {
  const int key = ::getch();
  return key == ERR ? 0 : key;
}

std::string_view Clipped(std::string_view text, int columns) {
  std::string_view shown = text.substr(0, 0);
  for (size_t end = 0; end < text.size();) {
    ++end;
    while (end < text.size() && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
      ++end;
    if (DisplayWidth(text.substr(0, end)) > static_cast<size_t>(columns)) break;
    shown = text.substr(0, end);
  }
  return shown;
}

}  // namespace ravctl
