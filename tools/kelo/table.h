#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

namespace kelotool {

// Columns as wide as their widest cell. The last column is not padded. Width counts characters, not
// bytes.
class Table {
public:
    enum class Align { kLeft, kRight };
    struct Column {
        std::string title;
        Align align = Align::kLeft;
    };

    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

    // As many cells as columns.
    void AddRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    std::string Text() const;
    void Print(std::FILE* out) const;

private:
    std::string Line(const std::vector<std::string>& cells,
                     const std::vector<size_t>& widths) const;

    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace kelotool
