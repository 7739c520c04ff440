#include "ctl/ctl_nearest.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr size_t MOST_NAMES = 3;

// Letters to insert, remove, replace or exchange with their neighbour, to make one text of the other.
size_t distance(std::string_view left, std::string_view right)
{
  std::vector<size_t> before;
  std::vector<size_t> last(right.size() + 1);
  std::iota(last.begin(), last.end(), 0);
  std::vector<size_t> row(right.size() + 1);
  for (size_t i = 1; i <= left.size(); i++) {
    row[0] = i;
    for (size_t j = 1; j <= right.size(); j++) {
      size_t replaced = last[j - 1] + (left[i - 1] == right[j - 1] ? 0 : 1);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, replaced});
      if (i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1]) {
        row[j] = std::min(row[j], before[j - 2] + 1);
      }
    }
    before = std::move(last);
    last = row;
  }
  return last.back();
}

} // namespace

std::vector<std::string> ctl_nearest(std::string_view word, const std::vector<std::string> &names)
{
  const size_t allowed = std::max<size_t>(1, word.size() / 3);
  std::vector<std::pair<size_t, std::string>> found;
  for (const std::string &name : names) {
    bool is_beginning = !word.empty() && name.starts_with(word);
    size_t far = is_beginning ? 0 : distance(word, name);
    if (far <= allowed) {
      found.emplace_back(far, name);
    }
  }
  std::sort(found.begin(), found.end());
  std::vector<std::string> nearest;
  for (size_t i = 0; i < std::min(found.size(), MOST_NAMES); i++) {
    nearest.push_back(std::move(found[i].second));
  }
  return nearest;
}

std::string ctl_did_you_mean(std::string_view word, const std::vector<std::string> &names)
{
  std::vector<std::string> nearest = ctl_nearest(word, names);
  std::string text;
  for (size_t i = 0; i < nearest.size(); i++) {
    text += i == 0 ? "; did you mean " : i + 1 == nearest.size() ? " or " : ", ";
    text += nearest[i];
  }
  return text.empty() ? text : text + "?";
}
