#include "tools/vorn/top/screen.h"

#include <algorithm>

namespace vorn_cli {

namespace {

void append_utf8(std::string& text, char32_t glyph) {
    const auto byte = [](char32_t value) { return static_cast<char>(value); };
    if (glyph < 0x80) {
        text += byte(glyph);
    } else if (glyph < 0x800) {
        text += byte(0xC0 | glyph >> 6);
        text += byte(0x80 | (glyph & 0x3F));
    } else {
        text += byte(0xE0 | glyph >> 12);
        text += byte(0x80 | (glyph >> 6 & 0x3F));
        text += byte(0x80 | (glyph & 0x3F));
    }
}

} // namespace

Screen::Screen(int width, int height)
    : width_(std::max(width, 0)), height_(std::max(height, 0)),
      cells_(static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_)) {}

Cell* Screen::cell(int row, int column) {
    return row >= 0 && row < height_ && column >= 0 && column < width_
               ? const_cast<Cell*>(&at(row, column))
               : nullptr;
}

int Screen::put(int row, int column, std::string_view text, Style style) {
    return put(row, column, width_, text, style);
}

int Screen::put(int row, int column, int end, std::string_view text, Style style) {
    for (const char c : text) {
        if (column >= end) {
            break;
        }
        const bool printable = c >= 0x20 && c < 0x7F;
        put_glyph(row, column++, printable ? static_cast<char32_t>(c) : U'?', style);
    }
    return column;
}

void Screen::put_right(int row, int begin, int end, std::string_view text, Style style) {
    const auto room = static_cast<std::size_t>(std::max(end - begin, 0));
    if (text.size() > room) {
        text.remove_prefix(text.size() - room);
    }
    put(row, end - static_cast<int>(text.size()), end, text, style);
}

void Screen::put_glyph(int row, int column, char32_t glyph, Style style) {
    if (Cell* at = cell(row, column)) {
        *at = {glyph, style};
    }
}

void Screen::restyle(int row, int begin, int end, Style style) {
    for (int column = begin; column < end; ++column) {
        if (Cell* at = cell(row, column)) {
            at->style = style;
        }
    }
}

std::vector<std::string> Screen::lines() const {
    std::vector<std::string> lines;
    for (int row = 0; row < height_; ++row) {
        int end = width_;
        while (end > 0 && at(row, end - 1).glyph == U' ') {
            --end;
        }
        std::string line;
        for (int column = 0; column < end; ++column) {
            append_utf8(line, at(row, column).glyph);
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

} // namespace vorn_cli
