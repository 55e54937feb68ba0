#include "lists/node_columns.h"

#include <tinyxml2.h>

#include <algorithm>
#include <string_view>

namespace gpuvet::lists {

NodeColumns::NodeColumns(const std::string& text, const tinyxml2::XMLDocument& document,
                         const std::unordered_set<const tinyxml2::XMLNode*>& wanted)
    : text_(text), wanted_(wanted) {
  if (wanted.empty()) {
    return;
  }
  lineStarts_.push_back(0);
  for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
    lineStarts_.push_back(at + 1);
  }
  wantedLines_.resize(lineStarts_.size() + 1);
  for (const tinyxml2::XMLNode* node : wanted) {
    wantedLines_[static_cast<std::size_t>(std::max(node->GetLineNum(), 0))] = true;
  }
  // Document order without recursion: down to the first child, else on to the
  // next sibling of the nearest node that has one.
  const tinyxml2::XMLNode* node = document.FirstChild();
  while (node != nullptr) {
    Visit(*node);
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

// Nodes that start on a line without a wanted node are passed over: only
// searches on that line could need the cursor they would move. (A comment
// that starts on such a line and ends on a wanted one, with markup of the same
// name inside, can then lend its place to a node behind it.)
void NodeColumns::Visit(const tinyxml2::XMLNode& node) {
  const auto line = static_cast<std::size_t>(std::max(node.GetLineNum(), 0));
  if (line >= wantedLines_.size() || !wantedLines_[line]) {
    return;
  }
  const tinyxml2::XMLText* textNode = node.ToText();
  if (const tinyxml2::XMLElement* element = node.ToElement()) {
    TakeElement(node, element->Value());
  } else if (node.ToComment() != nullptr) {
    SkipPast(Take(node, "<!--"), "-->");
  } else if (node.ToDeclaration() != nullptr) {
    SkipPast(Take(node, "<?"), "?>");
  } else if (textNode != nullptr && textNode->CData()) {
    SkipPast(Take(node, "<![CDATA["), "]]>");
  } else if (textNode != nullptr) {
    // A text starts where the markup before it ended; it is placed at its first visible byte.
    const std::size_t from = std::max(cursor_, LineStart(node.GetLineNum()));
    const std::size_t end = LineEnd(from);
    const std::size_t visible = text_.find_first_not_of(" \t\r", from);
    const std::size_t at = visible < end ? visible : from;
    if (wanted_.count(&node) != 0) {
      columns_[&node] = static_cast<int>(at - LineStart(node.GetLineNum()) + 1);
    }
    cursor_ = std::min(text_.find('<', from), text_.size());
  } else {
    SkipPast(Take(node, "<!"), ">");
  }
}

std::size_t NodeColumns::Take(const tinyxml2::XMLNode& node, const std::string& token) {
  const std::size_t lineStart = LineStart(node.GetLineNum());
  const std::size_t from = std::max(cursor_, lineStart);
  const std::size_t end = LineEnd(from);
  const std::size_t onLine = std::string_view(text_).substr(from, end - from).find(token);
  if (onLine == std::string_view::npos) {
    return std::string::npos;
  }
  const std::size_t at = from + onLine;
  if (wanted_.count(&node) != 0) {
    columns_[&node] = static_cast<int>(at - lineStart + 1);
  }
  cursor_ = at + token.size();
  return cursor_;
}

// "<" and the name, found without building the token: a text of a hundred
// thousand items has a million elements.
void NodeColumns::TakeElement(const tinyxml2::XMLNode& node, std::string_view name) {
  const std::size_t lineStart = LineStart(node.GetLineNum());
  const std::size_t end = LineEnd(std::max(cursor_, lineStart));
  for (std::size_t at = text_.find('<', std::max(cursor_, lineStart)); at < end; at = text_.find('<', at + 1)) {
    if (std::string_view(text_).substr(at + 1, name.size()) == name) {
      if (wanted_.count(&node) != 0) {
        columns_[&node] = static_cast<int>(at - lineStart + 1);
      }
      cursor_ = at + 1 + name.size();
      return;
    }
  }
}

void NodeColumns::SkipPast(std::size_t from, const char* token) {
  if (from == std::string::npos) {
    return;
  }
  const std::size_t at = text_.find(token, from);
  cursor_ = at == std::string::npos ? text_.size() : at + std::char_traits<char>::length(token);
}

std::size_t NodeColumns::LineStart(int line) const {
  const auto index = static_cast<std::size_t>(std::max(line, 1) - 1);
  return index < lineStarts_.size() ? lineStarts_[index] : text_.size();
}

std::size_t NodeColumns::LineEnd(std::size_t start) const {
  return std::min(text_.find('\n', start), text_.size());
}

}  // namespace gpuvet::lists
