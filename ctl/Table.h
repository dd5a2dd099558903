#pragma once

#include <string>
#include <vector>

namespace keywardctl {

enum class Colour { None, Good, Doubtful, Bad };

struct Cell {
    std::string text;
    Colour colour = Colour::None;
};

/// Columns that are aligned, separated by two blanks; no blanks at the ends of lines.
class Table {
  public:
    explicit Table(std::vector<std::string> headings) : headings_(std::move(headings)) {}

    /// As many cells as there are headings.
    void add(std::vector<Cell> row) { rows_.push_back(std::move(row)); }

    /// With `colours` cells are wrapped in the terminal's sequences (ECMA-48, SGR).
    [[nodiscard]] std::string text(bool colours) const;

  private:
    std::vector<std::string> headings_;
    std::vector<std::vector<Cell>> rows_;
};

/// "always", "never" or "auto": for auto, whether standard output is a terminal whose user did not say
/// NO_COLOR.
[[nodiscard]] bool wantsColours(const std::string& choice);

}  // namespace keywardctl
