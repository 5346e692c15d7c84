// Text in columns for people. Nothing that a host sends can steer the terminal: control bytes are shown as escapes.
#ifndef HOST_VT_HUB_TABLE_H
#define HOST_VT_HUB_TABLE_H

#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace vthub {

// The text with every control byte, and every byte that is no valid UTF-8, written as \n, \t or \xNN.
std::string Printable(std::string_view text);

class Table {
  public:
    explicit Table(std::vector<std::string> headings) : headings_(std::move(headings)) {}

    // One row; its cells are made printable here. A row may be shorter than the headings.
    void Add(std::vector<std::string> cells);

    // All rows under their headings, each line indented. A cell wider than max_cell_width is cut, with "..." at its
    // end; 0 = never. The last column is not padded.
    void Print(std::ostream &out, std::size_t max_cell_width) const;

    std::size_t Rows() const { return rows_.size(); }

  private:
    std::vector<std::string> headings_;
    std::vector<std::vector<std::string>> rows_;
};

}  // namespace vthub

#endif
