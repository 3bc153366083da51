#include "top/Terminal.h"

#include <ncurses.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cwchar>

#include "Failure.h"
#include "Text.h"

namespace Tool {

namespace {

enum Pair : short { goodPair = 1, warningPair, alarmPair };

attr_t attributes(Style style) {
  bool const coloured = ::has_colors();
  auto const colour = [&](Pair pair, attr_t without) -> attr_t {
    return coloured ? static_cast<attr_t>(COLOR_PAIR(pair)) : without;
  };
  switch (style) {
    case Style::plain:
      return A_NORMAL;
    case Style::bold:
      return A_BOLD;
    case Style::dim:
      return coloured ? A_DIM : A_NORMAL;
    case Style::good:
      return colour(goodPair, A_NORMAL);
    case Style::warning:
      return colour(warningPair, A_BOLD);
    case Style::alarm:
      return colour(alarmPair, A_NORMAL) | A_BOLD;
    case Style::reverse:
      return A_REVERSE;
    case Style::alarmReverse:
      return colour(alarmPair, A_NORMAL) | A_BOLD | A_REVERSE;
  }
  return A_NORMAL;
}

/// The keys of a terminal that are no characters.
void handleSpecial(Screen& screen, wint_t key) {
  using Key = Screen::Key;
  switch (key) {
    case KEY_UP:
      return screen.handleKey(Key::up);
    case KEY_DOWN:
      return screen.handleKey(Key::down);
    case KEY_PPAGE:
      return screen.handleKey(Key::pageUp);
    case KEY_NPAGE:
      return screen.handleKey(Key::pageDown);
    case KEY_HOME:
      return screen.handleKey(Key::home);
    case KEY_END:
      return screen.handleKey(Key::end);
    case KEY_ENTER:
      return screen.handleKey(Key::enter);
    case KEY_BTAB:
      return screen.handleKey(Key::backTab);
    case KEY_BACKSPACE:
      return screen.handleKey(Key::erase);
    default:
      return;
  }
}

void handleCharacter(Screen& screen, wint_t character) {
  using Key = Screen::Key;
  switch (character) {
    case L'\n':
    case L'\r':
      return screen.handleKey(Key::enter);
    case L'\t':
      return screen.handleKey(Key::tab);
    case 27:
      return screen.handleKey(Key::escape);
    case 8:
    case 127:
      return screen.handleKey(Key::erase);
    default:
      break;
  }
  std::array<char, 16> bytes{};
  std::mbstate_t state{};
  auto const length = std::wcrtomb(bytes.data(), static_cast<wchar_t>(character), &state);
  if (length != static_cast<std::size_t>(-1)) screen.handleText({bytes.data(), length});
}

}  // namespace

Terminal::Terminal() {
  if (!::isatty(STDIN_FILENO) || !::isatty(STDOUT_FILENO)) {
    throw Failure("this is no terminal; use --batch", ExitCode::usage);
  }
  if (!::newterm(nullptr, stdout, stdin)) {
    char const* const type = std::getenv("TERM");
    throw Failure(
        "the terminal " + std::string(type ? type : "") + " is not known; set TERM, or use --batch",
        ExitCode::usage);
  }
  ::cbreak();
  ::noecho();
  ::nonl();
  ::curs_set(0);
  ::keypad(stdscr, TRUE);
  ::nodelay(stdscr, TRUE);
  ::set_escdelay(50);
  if (::has_colors()) {
    ::start_color();
    ::use_default_colors();
    ::init_pair(goodPair, COLOR_GREEN, -1);
    ::init_pair(warningPair, COLOR_YELLOW, -1);
    ::init_pair(alarmPair, COLOR_RED, -1);
  }
}

Terminal::~Terminal() {
  ::endwin();
}

std::size_t Terminal::rows() const {
  return static_cast<std::size_t>(getmaxy(stdscr));
}
std::size_t Terminal::width() const {
  return static_cast<std::size_t>(getmaxx(stdscr));
}

void Terminal::draw(std::vector<Line> const& lines) {
  ::erase();
  std::size_t row = 0;
  for (auto const& line : lines) {
    if (row == rows()) break;
    std::size_t left = width();
    ::wmove(stdscr, static_cast<int>(row++), 0);
    for (auto const& piece : line.pieces) {
      std::string const text = cutTo(piece.text, left);
      left -= columnsOf(text);
      ::wattrset(stdscr, static_cast<int>(attributes(piece.style)));
      ::waddstr(stdscr, inLocale(text).c_str());
    }
  }
  ::refresh();
}

void Terminal::readKeys(Screen& screen) {
  wint_t key = 0;
  for (int kind = ::get_wch(&key); kind != ERR && !screen.ended(); kind = ::get_wch(&key)) {
    if (kind == KEY_CODE_YES) {
      handleSpecial(screen, key);
    } else {
      handleCharacter(screen, key);
    }
  }
}

void Terminal::adaptToSize() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
    ::resizeterm(size.ws_row, size.ws_col);
  }
  ::clearok(curscr, TRUE);
}

}  // namespace Tool
