#include "ctl/ctl_table.h"

#include <algorithm>

namespace {

constexpr size_t GAP = 2; // blanks between columns

std::string row_text(const std::vector<std::string> &row, const std::vector<size_t> &widths)
{
  std::string text;
  for (size_t i = 0; i < row.size(); i++) {
    text += row[i];
    text.append(i + 1 == row.size() ? 0 : widths[i] + GAP - row[i].size(), ' ');
  }
  return text.erase(text.find_last_not_of(' ') + 1);
}

} // namespace

int ctl_print_table(const ctl_output_t &output, const std::vector<std::string> &header,
                    std::vector<std::vector<std::string>> rows)
{
  for (std::vector<std::string> &row : rows) {
    for (std::string &cell : row) {
      cell = ctl_visible(cell); // names of users, for example, are what their sessions say
    }
  }
  std::vector<size_t> widths;
  for (size_t i = 0; i < header.size(); i++) {
    widths.push_back(header[i].size());
    for (const std::vector<std::string> &row : rows) {
      widths[i] = std::max(widths[i], row[i].size());
    }
  }
  std::string text = ctl_paint(output, ctl_color::faint, row_text(header, widths)) + "\n";
  for (const std::vector<std::string> &row : rows) {
    text += row_text(row, widths) + "\n";
  }
  return ctl_write(output, text);
}
