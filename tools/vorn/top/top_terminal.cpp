#include "tools/vorn/top/top_terminal.h"

#include "tools/vorn/exit_code.h"
#include "tools/vorn/terminal.h"

#define NCURSES_WIDECHAR 1
#define NCURSES_NOMACROS 1 // its macros are words like erase and move
#include <clocale>
#include <cstdlib>
#include <curses.h>
#include <fmt/format.h>
#include <langinfo.h>
#include <poll.h>
#include <string_view>
#include <unistd.h>

namespace vorn_cli {

namespace {

constexpr short kGreen = 1;
constexpr short kYellow = 2;
constexpr short kRed = 3;
constexpr int kMostEmptyReads = 100;

void define_colours() {
    ::start_color();
    const short background = ::use_default_colors() == OK ? -1 : COLOR_BLACK;
    ::init_pair(kGreen, COLOR_GREEN, background);
    ::init_pair(kYellow, COLOR_YELLOW, background);
    ::init_pair(kRed, COLOR_RED, background);
}

attr_t attribute_of(Style style) {
    switch (style) {
    case Style::kBold:
    case Style::kGood:
    case Style::kWarning:
    case Style::kBad:
        return A_BOLD;
    case Style::kDim:
        return A_DIM;
    case Style::kChosen:
        return A_REVERSE;
    case Style::kPlain:
    case Style::kBid:
    case Style::kAsk:
        break;
    }
    return A_NORMAL;
}

short colour_of(Style style) {
    switch (style) {
    case Style::kGood:
    case Style::kBid:
        return kGreen;
    case Style::kWarning:
        return kYellow;
    case Style::kBad:
    case Style::kAsk:
        return kRed;
    default:
        return 0;
    }
}

Key key_of(wint_t code) {
    switch (code) {
    case KEY_UP:
        return Key::kUp;
    case KEY_DOWN:
        return Key::kDown;
    case KEY_PPAGE:
        return Key::kPageUp;
    case KEY_NPAGE:
        return Key::kPageDown;
    case KEY_HOME:
        return Key::kHome;
    case KEY_END:
        return Key::kEnd;
    case KEY_ENTER:
        return Key::kEnter;
    case KEY_BACKSPACE:
        return Key::kBackspace;
    default:
        return Key::kNone;
    }
}

TopTerminal::Event event_of(wint_t character) {
    using Input = TopTerminal::Input;
    switch (character) {
    case '\r':
    case '\n':
        return {Input::kKey, Key::kEnter, 0};
    case 0x1b:
        return {Input::kKey, Key::kEscape, 0};
    case 0x08:
    case 0x7f:
        return {Input::kKey, Key::kBackspace, 0};
    default:
        break;
    }
    const bool ascii = character >= 0x20 && character < 0x7f;
    return {Input::kKey, ascii ? Key::kCharacter : Key::kNone,
            ascii ? static_cast<char>(character) : '\0'};
}

} // namespace

bool locale_has_unicode() {
    // Only what characters are: numbers stay as they are everywhere in this program.
    return std::setlocale(LC_CTYPE, "") != nullptr &&
           std::string_view(::nl_langinfo(CODESET)) == "UTF-8";
}

TopTerminal::TopTerminal() : unicode_(locale_has_unicode()), colour_(use_colour(STDOUT_FILENO)) {
    if (!is_terminal(STDIN_FILENO) || !is_terminal(STDOUT_FILENO)) {
        throw Failure(kUsage, "the screen needs a terminal (--once prints one picture, --json "
                              "objects, anywhere)");
    }
    terminal_ = ::newterm(nullptr, stdout, stdin);
    if (terminal_ == nullptr) {
        const char* const term = std::getenv("TERM");
        throw Failure(kFailed,
                      fmt::format("the terminal '{}' is not known here: set TERM to one that is, "
                                  "as in TERM=xterm, or use --once",
                                  term != nullptr ? term : ""));
    }
    ::cbreak();
    ::noecho();
    ::nonl();
    ::keypad(stdscr, TRUE);
    ::nodelay(stdscr, TRUE);
    ::set_escdelay(25);
    ::curs_set(0);
    colour_ = colour_ && ::has_colors();
    if (colour_) {
        define_colours();
    }
}

TopTerminal::~TopTerminal() {
    ::endwin();
    ::delscreen(static_cast<SCREEN*>(terminal_));
}

int TopTerminal::width() const {
    return getmaxx(stdscr);
}

int TopTerminal::height() const {
    return getmaxy(stdscr);
}

void TopTerminal::show(const Screen& screen) {
    ::werase(stdscr);
    std::wstring run;
    for (int row = 0; row < screen.height(); ++row) {
        for (int column = 0; column < screen.width();) {
            const int begin = column;
            const Style style = screen.at(row, begin).style;
            run.clear();
            for (; column < screen.width() && screen.at(row, column).style == style; ++column) {
                run += static_cast<wchar_t>(screen.at(row, column).glyph);
            }
            ::wattr_set(stdscr, attribute_of(style), colour_ ? colour_of(style) : short{0},
                        nullptr);
            // Refused behind the last cell of all, which is written nevertheless.
            ::mvwaddnwstr(stdscr, row, begin, run.data(), static_cast<int>(run.size()));
        }
    }
    ::wattr_set(stdscr, A_NORMAL, 0, nullptr);
    ::wrefresh(stdscr);
}

TopTerminal::Event TopTerminal::wait(int milliseconds) {
    wint_t code = 0;
    int got = ::wget_wch(stdscr, &code); // what is there already, or a size that has changed
    if (got == ERR) {
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        const int ready = ::poll(&input, 1, milliseconds);
        if (ready > 0 && (input.revents & POLLIN) == 0) {
            return {Input::kGone, Key::kNone, 0};
        }
        got = ::wget_wch(stdscr, &code);
        if (got == ERR) {
            // Readable again and again without anything to read: the end of the input.
            empty_reads_ = ready > 0 ? empty_reads_ + 1 : 0;
            return {empty_reads_ > kMostEmptyReads ? Input::kGone : Input::kNothing, Key::kNone, 0};
        }
    }
    empty_reads_ = 0;
    if (got == KEY_CODE_YES) {
        return code == KEY_RESIZE ? Event{Input::kResized, Key::kNone, 0}
                                  : Event{Input::kKey, key_of(code), 0};
    }
    return event_of(code);
}

} // namespace vorn_cli
