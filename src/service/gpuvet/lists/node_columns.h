#pragma once

#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace tinyxml2 {
class XMLDocument;
class XMLNode;
}  // namespace tinyxml2

namespace gpuvet::lists {

// The columns, from 1, of some nodes of a parsed document. The parser keeps
// each node's line; the column is where the node's markup stands on that line,
// found by one walk of the document in text order with every search held to
// the node's own line, so nodes that share a line each get their own place.
class NodeColumns {
 public:
  NodeColumns(const std::string& text, const tinyxml2::XMLDocument& document,
              const std::unordered_set<const tinyxml2::XMLNode*>& wanted);
  // 1 for a node that was not wanted or not found.
  int Of(const tinyxml2::XMLNode& node) const;

 private:
  void Visit(const tinyxml2::XMLNode& node);
  // Finds the token on the node's line from the cursor; records the node there.
  std::size_t Take(const tinyxml2::XMLNode& node, const std::string& token);
  void TakeElement(const tinyxml2::XMLNode& node, std::string_view name);
  void SkipPast(std::size_t from, const char* token);
  std::size_t LineStart(int line) const;
  std::size_t LineEnd(std::size_t start) const;

  const std::string& text_;
  const std::unordered_set<const tinyxml2::XMLNode*>& wanted_;
  std::vector<std::size_t> lineStarts_;
  std::vector<bool> wantedLines_;
  std::unordered_map<const tinyxml2::XMLNode*, int> columns_;
  std::size_t cursor_ = 0;
};

}  // namespace gpuvet::lists
