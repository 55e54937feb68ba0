#include "lists/node_places.h"

#include <tinyxml2.h>

#include <algorithm>

namespace gpuvet::lists {

NodePlaces::NodePlaces(const std::string& text, const tinyxml2::XMLDocument& document) : text_(text) {
  lineStarts_.push_back(0);
  for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1)) {
    lineStarts_.push_back(at + 1);
  }
  for (const tinyxml2::XMLNode* child = document.FirstChild(); child != nullptr; child = child->NextSibling()) {
    Visit(*child);
  }
}

Place NodePlaces::Of(const tinyxml2::XMLNode& node) const {
  const auto found = offsets_.find(&node);
  return found != offsets_.end() ? PlaceOfOffset(found->second) : Place{node.GetLineNum(), 1};
}

void NodePlaces::Visit(const tinyxml2::XMLNode& node) {
  if (const tinyxml2::XMLElement* element = node.ToElement()) {
    if (!Take(node, std::string("<") + element->Value())) {
      return;
    }
    const std::size_t tagEnd = text_.find('>', cursor_);
    cursor_ = tagEnd == std::string::npos ? text_.size() : tagEnd + 1;
    if (tagEnd != std::string::npos && tagEnd > 0 && text_[tagEnd - 1] == '/') {
      return;
    }
    for (const tinyxml2::XMLNode* child = node.FirstChild(); child != nullptr; child = child->NextSibling()) {
      Visit(*child);
    }
    SkipPast(std::string("</") + element->Value());
    SkipPast(">");
  } else if (node.ToComment() != nullptr) {
    if (Take(node, "<!--")) SkipPast("-->");
  } else if (node.ToDeclaration() != nullptr) {
    if (Take(node, "<?")) SkipPast("?>");
  } else if (const tinyxml2::XMLText* textNode = node.ToText(); textNode != nullptr && textNode->CData()) {
    if (Take(node, "<![CDATA[")) SkipPast("]]>");
  } else if (node.ToText() != nullptr) {
    // A text runs from the cursor to the next markup; it is placed at its first visible byte.
    const std::size_t end = std::min(text_.find('<', cursor_), text_.size());
    const std::size_t visible = text_.find_first_not_of(" \t\r\n", cursor_);
    offsets_[&node] = visible < end ? visible : cursor_;
    cursor_ = end;
  } else if (Take(node, "<!")) {
    SkipPast(">");
  }
}

bool NodePlaces::Take(const tinyxml2::XMLNode& node, const std::string& token) {
  const std::size_t at = text_.find(token, cursor_);
  if (at == std::string::npos) {
    return false;
  }
  offsets_[&node] = at;
  cursor_ = at + token.size();
  return true;
}

void NodePlaces::SkipPast(const std::string& token) {
  const std::size_t at = text_.find(token, cursor_);
  cursor_ = at == std::string::npos ? text_.size() : at + token.size();
}

Place NodePlaces::PlaceOfOffset(std::size_t offset) const {
  const auto next = std::upper_bound(lineStarts_.begin(), lineStarts_.end(), offset);
  const std::size_t line = static_cast<std::size_t>(next - lineStarts_.begin());
  return {static_cast<int>(line), static_cast<int>(offset - lineStarts_[line - 1] + 1)};
}

}  // namespace gpuvet::lists
