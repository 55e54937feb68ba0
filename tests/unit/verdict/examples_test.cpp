// The sample lists that `make run` uses: every item is read, and every text can
// equal a device's trimmed OpenCL string, with the vendor id in decimal.
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <cctype>
#include <cstring>
#include <filesystem>
#include <string>

#include "verdict/list_file.h"

namespace gpuvet {
namespace {

bool IsTrimmed(const std::string& text) {
  return !text.empty() && std::isspace(static_cast<unsigned char>(text.front())) == 0 &&
         std::isspace(static_cast<unsigned char>(text.back())) == 0;
}

TEST(ExampleListsTest, EveryItemIsReadAndCanMatch) {
  const char* fields[] = {"VID", "DeviceName", "OpenCLCVersion", "DeviceVersion", "DriverVersion"};
  for (const char* name : {"blacklist.xml", "whitelist.xml"}) {
    SCOPED_TRACE(name);
    tinyxml2::XMLDocument document(true, tinyxml2::PRESERVE_WHITESPACE);
    ASSERT_EQ(document.LoadFile((std::string(GPUVET_EXAMPLES_DIR) + "/" + name).c_str()), tinyxml2::XML_SUCCESS);
    const tinyxml2::XMLElement* root = document.FirstChildElement();
    ASSERT_NE(root, nullptr);
    int itemElements = 0;
    for (const tinyxml2::XMLElement* e = root->FirstChildElement("Item"); e; e = e->NextSiblingElement("Item")) {
      ++itemElements;
    }
    int itemsRead = 0;
    for (const tinyxml2::XMLElement* item = FirstItem(*root); item != nullptr; item = NextItem(*item), ++itemsRead) {
      for (const char* field : fields) {
        const tinyxml2::XMLElement* element = item->FirstChildElement(field);
        ASSERT_NE(element, nullptr) << "line " << item->GetLineNum() << " lacks " << field;
        const std::string text = element->GetText() != nullptr ? element->GetText() : "";
        EXPECT_TRUE(IsTrimmed(text)) << "line " << element->GetLineNum() << ": \"" << text << '"';
      }
      const std::string vid = item->FirstChildElement("VID")->GetText();
      EXPECT_EQ(vid.find_first_not_of("0123456789"), std::string::npos) << "VID " << vid;
    }
    EXPECT_GT(itemsRead, 0);
    EXPECT_EQ(itemsRead, itemElements) << "something between two items ends the list";
  }
}

}  // namespace
}  // namespace gpuvet
