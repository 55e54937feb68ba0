#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace tinyxml2 {
class XMLDocument;
class XMLNode;
}  // namespace tinyxml2

namespace gpuvet::lists {

// The texts of some lines of a file, by their number from 1, as the parser counts them.
using LineTexts = std::unordered_map<int, std::string>;
LineTexts CollectLines(std::string_view text, const std::unordered_set<int>& wanted);
// Reads the file from its start, keeping only the wanted lines.
LineTexts CollectLines(std::FILE* file, const std::unordered_set<int>& wanted);

// The columns, from 1, of some nodes of a parsed document. The parser keeps
// each node's line; the column is where the node's markup stands on that line,
// found by one walk of the document in text order with every search held to
// the node's own line, so nodes that share a line each get their own place.
class NodeColumns {
 public:
  NodeColumns(const LineTexts& lines, const tinyxml2::XMLDocument& document,
              const std::unordered_set<const tinyxml2::XMLNode*>& wanted);
  // 1 for a node that was not wanted or not found.
  int Of(const tinyxml2::XMLNode& node) const;

 private:
  void Visit(const tinyxml2::XMLNode& node, const std::string& line);
  // Finds the token on the line from the cursor and records the node there;
  // the place behind the token, or npos when it is not on the line.
  std::size_t Take(const tinyxml2::XMLNode& node, const std::string& line, std::string_view token);
  void SkipPast(const std::string& line, std::size_t from, std::string_view token);

  const std::unordered_set<const tinyxml2::XMLNode*>& wanted_;
  std::unordered_map<const tinyxml2::XMLNode*, int> columns_;
  int cursorLine_ = 0;
  std::size_t cursor_ = 0;  // on cursorLine_
};

}  // namespace gpuvet::lists
