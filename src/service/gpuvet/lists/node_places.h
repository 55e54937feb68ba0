#pragma once

#include <map>
#include <string>
#include <vector>

namespace tinyxml2 {
class XMLDocument;
class XMLNode;
}  // namespace tinyxml2

namespace gpuvet::lists {

// Line and column, both from 1, of a node in the text of its file.
struct Place {
  int line = 1;
  int column = 1;
};

// Finds where each node of a parsed document starts in the text it was parsed
// from. The parser keeps only lines, so the text is walked in document order
// beside the nodes; a node that can't be found gets its parser line and column 1.
class NodePlaces {
 public:
  NodePlaces(const std::string& text, const tinyxml2::XMLDocument& document);
  Place Of(const tinyxml2::XMLNode& node) const;

 private:
  void Visit(const tinyxml2::XMLNode& node);
  // Finds `token` from the cursor; on success records the node there and moves
  // the cursor past it. False when it is not there.
  bool Take(const tinyxml2::XMLNode& node, const std::string& token);
  void SkipPast(const std::string& token);
  Place PlaceOfOffset(std::size_t offset) const;

  const std::string text_;
  std::vector<std::size_t> lineStarts_;
  std::map<const tinyxml2::XMLNode*, std::size_t> offsets_;
  std::size_t cursor_ = 0;
};

}  // namespace gpuvet::lists
