#include "ctl/message_table.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "ctl/messages_page.h"
#include "ctl/text.h"

namespace tavlo::ctl {

namespace {

constexpr std::string_view kLeftToTheRest = "see there";

// The cells of a row: what stands between bars that no backslash comes before.
std::vector<std::string> CellsOf(std::string_view row) {
  std::vector<std::string> cells;
  std::string cell;
  for (size_t i = 0; i < row.size(); ++i) {
    if (row.substr(i, 2) == "\\|") {
      cell += row[++i];
    } else if (row[i] == '|') {
      cells.push_back(cell);
      cell.clear();
    } else {
      cell += row[i];
    }
  }
  if (!cells.empty()) {
    cells.erase(cells.begin());  // before the first bar there is nothing
  }
  for (std::string& each : cells) {
    const size_t first = each.find_first_not_of(' ');
    const size_t last = each.find_last_not_of(' ');
    each = first == each.npos ? "" : each.substr(first, last - first + 1);
  }
  return cells;
}

// "[a page](page.md#part)" becomes "a page (docs/page.md#part)".
std::string WithoutLinks(const std::string& text) {
  std::string result;
  size_t begin = 0;
  for (;;) {
    const size_t open = text.find('[', begin);
    const size_t middle = text.find("](", open);
    const size_t close = text.find(')', middle);
    if (open == text.npos || middle == text.npos || close == text.npos) {
      return result + text.substr(begin);
    }
    result += text.substr(begin, open - begin) + text.substr(open + 1, middle - open - 1) +
              " (docs/" + text.substr(middle + 2, close - middle - 2) + ")";
    begin = close + 1;
  }
}

std::optional<Message> ReadRow(std::string_view line) {
  if (!BeginsWith(line, "| `")) {
    return std::nullopt;
  }
  const std::vector<std::string> cells = CellsOf(line);
  if (cells.size() != 3 || cells[0].size() < 3 || cells[0].back() != '`') {
    return std::nullopt;
  }
  const std::string format = cells[0].substr(1, cells[0].size() - 2);
  return Message{format, WithoutLinks(cells[1]), WithoutLinks(cells[2]), TextPattern(format)};
}

}  // namespace

MessageTable::MessageTable(std::string_view page) {
  while (!page.empty()) {
    const size_t end = std::min(page.find('\n'), page.size());
    if (auto message = ReadRow(page.substr(0, end))) {
      messages_.push_back(std::move(*message));
    }
    page.remove_prefix(std::min(end + 1, page.size()));
  }
}

const MessageTable& MessageTable::Built() {
  static const MessageTable table(kMessagesPage);
  return table;
}

// What a text begins with is the daemon's own, what comes later may be a client's: the row with the
// longest beginning is meant.
MessageTable::Meaning MessageTable::Explain(std::string_view text) const {
  const Message* meant = nullptr;
  std::vector<std::string_view> values;
  for (const Message& message : messages_) {
    const bool isLonger =
        meant == nullptr || message.pattern.Beginning().size() > meant->pattern.Beginning().size();
    if (isLonger && message.pattern.Match(text, &values)) {
      meant = &message;
    }
  }
  if (meant == nullptr || meant->cure != kLeftToTheRest || !meant->pattern.Match(text, &values) ||
      values.empty()) {
    return {meant, nullptr};
  }
  return {meant, Explain(values.back()).message};
}

}  // namespace tavlo::ctl
