#include "lists/node_columns.h"

#include <tinyxml2.h>

#include <algorithm>
#include <vector>

namespace gpuvet::lists {
namespace {

constexpr std::size_t kReadChunk = 1 << 16;

// Splits text fed to it in pieces into lines and keeps the wanted ones.
class LineCollector {
 public:
  explicit LineCollector(const std::unordered_set<int>& wanted) : wanted_(wanted) {}
  void Feed(std::string_view piece) {
    while (!piece.empty()) {
      const std::size_t end = piece.find('\n');
      if (wanted_.count(line_) != 0) {
        lines_[line_].append(piece.substr(0, end));
      }
      if (end == std::string_view::npos) {
        return;
      }
      ++line_;
      piece.remove_prefix(end + 1);
    }
  }
  LineTexts Take() { return std::move(lines_); }

 private:
  const std::unordered_set<int>& wanted_;
  LineTexts lines_;
  int line_ = 1;
};

}  // namespace

LineTexts CollectLines(std::string_view text, const std::unordered_set<int>& wanted) {
  LineCollector collector(wanted);
  collector.Feed(text);
  return collector.Take();
}

LineTexts CollectLines(std::FILE* file, const std::unordered_set<int>& wanted) {
  LineCollector collector(wanted);
  std::rewind(file);
  char chunk[kReadChunk];
  for (std::size_t got = 0; (got = std::fread(chunk, 1, sizeof chunk, file)) > 0;) {
    collector.Feed(std::string_view(chunk, got));
  }
  return collector.Take();
}

NodeColumns::NodeColumns(const LineTexts& lines, const tinyxml2::XMLDocument& document,
                         const std::unordered_set<const tinyxml2::XMLNode*>& wanted)
    : wanted_(wanted) {
  if (wanted.empty()) {
    return;
  }
  // Document order without recursion: down to the first child, else on to the
  // next sibling of the nearest node that has one. Nodes that start on a line
  // without a wanted node are passed over: only searches on that line could
  // need the cursor they would move. (A comment that starts on such a line and
  // ends on a wanted one, with markup of the same name inside, can then lend
  // its place to a node behind it.)
  // Lines only grow in document order: the next wanted line is a step along a sorted list.
  std::vector<int> wantedLines;
  wantedLines.reserve(lines.size());
  for (const auto& [number, text] : lines) {
    wantedLines.push_back(number);
  }
  std::sort(wantedLines.begin(), wantedLines.end());
  auto nextWanted = wantedLines.begin();
  const tinyxml2::XMLNode* node = document.FirstChild();
  while (node != nullptr) {
    while (nextWanted != wantedLines.end() && *nextWanted < node->GetLineNum()) {
      ++nextWanted;
    }
    if (nextWanted != wantedLines.end() && *nextWanted == node->GetLineNum()) {
      Visit(*node, lines.at(*nextWanted));
    }
    if (node->FirstChild() != nullptr) {
      node = node->FirstChild();
      continue;
    }
    while (node != nullptr && node->NextSibling() == nullptr) {
      node = node->Parent();
    }
    node = node == nullptr ? nullptr : node->NextSibling();
  }
}

int NodeColumns::Of(const tinyxml2::XMLNode& node) const {
  const auto found = columns_.find(&node);
  return found == columns_.end() ? 1 : found->second;
}

void NodeColumns::Visit(const tinyxml2::XMLNode& node, const std::string& line) {
  if (node.GetLineNum() != cursorLine_) {
    cursorLine_ = node.GetLineNum();
    cursor_ = 0;
  }
  const tinyxml2::XMLText* text = node.ToText();
  if (const tinyxml2::XMLElement* element = node.ToElement()) {
    Take(node, line, std::string("<") + element->Value());
  } else if (node.ToComment() != nullptr) {
    SkipPast(line, Take(node, line, "<!--"), "-->");
  } else if (node.ToDeclaration() != nullptr) {
    SkipPast(line, Take(node, line, "<?"), "?>");
  } else if (text != nullptr && text->CData()) {
    SkipPast(line, Take(node, line, "<![CDATA["), "]]>");
  } else if (text != nullptr) {
    // A text starts where the markup before it ended; it is placed at its first visible byte.
    const std::size_t visible = line.find_first_not_of(" \t\r", cursor_);
    if (wanted_.count(&node) != 0) {
      columns_[&node] = static_cast<int>(std::min(visible, line.size()) + 1);
    }
    cursor_ = std::min(line.find('<', cursor_), line.size());
  } else {
    SkipPast(line, Take(node, line, "<!"), ">");
  }
}

std::size_t NodeColumns::Take(const tinyxml2::XMLNode& node, const std::string& line, std::string_view token) {
  const std::size_t at = line.find(token, cursor_);
  if (at == std::string::npos) {
    return std::string::npos;
  }
  if (wanted_.count(&node) != 0) {
    columns_[&node] = static_cast<int>(at + 1);
  }
  cursor_ = at + token.size();
  return cursor_;
}

void NodeColumns::SkipPast(const std::string& line, std::size_t from, std::string_view token) {
  if (from == std::string::npos) {
    return;
  }
  const std::size_t at = line.find(token, from);
  cursor_ = at == std::string::npos ? line.size() : at + token.size();
}

}  // namespace gpuvet::lists
