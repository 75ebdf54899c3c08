#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "ctl/text_pattern.h"

namespace tavlo::ctl {

/// A row of docs/messages.md. Cause and cure are as there, with the target of a link behind its
/// text.
struct Message {
  std::string format;  ///< as for printf
  std::string cause;
  std::string cure;
  TextPattern pattern;
};

/// What docs/messages.md says of the daemon's error lines.
class MessageTable {
 public:
  /// Reads the rows of `page`, a document in Markdown: each line "| `format` | cause | cure |".
  explicit MessageTable(std::string_view page);

  /// The page as it was when the program was built.
  static const MessageTable& Built();

  const std::vector<Message>& Messages() const { return messages_; }

  /// The row that a text was made by, and, where that row leaves it to the rest of the text ("see
  /// there"), the row that this was made by. Null for what the page does not have. They live as
  /// long as the table.
  struct Meaning {
    const Message* message;
    const Message* rest;
  };
  Meaning Explain(std::string_view text) const;

 private:
  std::vector<Message> messages_;
};

}  // namespace tavlo::ctl
