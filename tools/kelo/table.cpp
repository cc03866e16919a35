#include "table.h"

#include <algorithm>

namespace kelotool {
namespace {

size_t Width(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char character) {
        return (static_cast<unsigned char>(character) & 0xC0) != 0x80;
    }));
}

}  // namespace

std::string Table::Text() const {
    std::vector<std::string> titles;
    for (const Column& column : columns_)
        titles.push_back(column.title);
    std::vector<size_t> widths;
    for (size_t i = 0; i < columns_.size(); ++i) {
        size_t width = Width(titles[i]);
        for (const auto& row : rows_)
            width = std::max(width, Width(row[i]));
        widths.push_back(width);
    }
    std::string text = Line(titles, widths);
    for (const auto& row : rows_)
        text += Line(row, widths);
    return text;
}

std::string Table::Line(const std::vector<std::string>& cells,
                        const std::vector<size_t>& widths) const {
    std::string line;
    for (size_t i = 0; i < cells.size(); ++i) {
        const std::string padding(widths[i] - Width(cells[i]), ' ');
        const bool right = columns_[i].align == Align::kRight;
        const bool last = i + 1 == cells.size();
        line += right ? padding + cells[i] : cells[i] + (last ? "" : padding);
        if (!last) line += "  ";
    }
    return line + '\n';
}

void Table::Print(std::FILE* out) const {
    const std::string text = Text();
    std::fwrite(text.data(), 1, text.size(), out);
}

}  // namespace kelotool
