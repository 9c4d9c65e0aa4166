// The XML wrapper: navigation by name, null handles that read empty, and edits that survive a save.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "runtime/xml/zv_xml.h"

namespace {

constexpr char kDocument[] = R"(<?xml version="1.0"?>
<root>
  <item name="a" kind="x">first</item>
  <other/>
  <item name="b">second</item>
  <group><child>inner</child></group>
</root>)";

TEST(ZvXmlNavigation, ChildrenAndSiblingsAreFoundByName) {
    ZvXMLDocument doc;
    ASSERT_EQ(doc.Parse(kDocument), 0);
    const ZvXmlElement root = doc.RootElement();
    EXPECT_EQ(root.Name(), "root");
    const ZvXmlElement first = root.FirstNode("item");
    EXPECT_EQ(first.Value(), "first");
    EXPECT_EQ(first.Attribute("name"), "a");
    const ZvXmlElement second = first.NextSiblingElement("item");
    EXPECT_EQ(second.Attribute("name"), "b");
    EXPECT_TRUE(second.NextSiblingElement("item").IsElementNull());
    EXPECT_EQ(root.FirstNode("group").FirstNode("child").Value(), "inner");
}

TEST(ZvXmlNavigation, EmptyNameMeansAnyElement) {
    ZvXMLDocument doc;
    ASSERT_EQ(doc.Parse(kDocument), 0);
    EXPECT_EQ(doc.FirstNode("").Name(), "root");
    const ZvXmlElement first = doc.RootElement().FirstNode("");
    EXPECT_EQ(first.Name(), "item");
    EXPECT_EQ(first.NextSiblingElement("").Name(), "other");
}

TEST(ZvXmlNullHandles, ReadEmptyAndIgnoreWrites) {
    ZvXMLDocument doc;
    ASSERT_EQ(doc.Parse(kDocument), 0);
    const ZvXmlElement missing = doc.RootElement().FirstNode("absent");
    EXPECT_TRUE(missing.IsElementNull());
    EXPECT_EQ(missing.Value(), "");
    EXPECT_EQ(missing.Attribute("name"), "");
    EXPECT_TRUE(missing.FirstNode("x").IsElementNull());
    EXPECT_TRUE(missing.NextSiblingElement("x").IsElementNull());
    EXPECT_TRUE(missing.FirstAttribute("name").IsAttributeNull());
    ZvXmlElement copy = missing;
    copy.SetNodeValue("ignored");
    ZvXmlAttribute attribute = doc.RootElement().FirstNode("other").FirstAttribute("name");
    EXPECT_TRUE(attribute.IsAttributeNull());
    attribute.SetAttribute("ignored");
    EXPECT_EQ(doc.RootElement().FirstNode("other").Attribute("name"), "");
    EXPECT_EQ(doc.RootElement().FirstNode("other").Value(), "");
}

TEST(ZvXmlParsing, MalformedAndEmptyTextFail) {
    ZvXMLDocument doc;
    EXPECT_TRUE(doc.IsDocumentNull());
    EXPECT_NE(doc.Parse(""), 0);
    EXPECT_NE(doc.Parse("<a><b></a>"), 0);
    EXPECT_NE(doc.Parse("plain text"), 0);
    EXPECT_TRUE(doc.IsDocumentNull());
    EXPECT_TRUE(doc.RootElement().IsElementNull());
    EXPECT_NE(doc.LoadFile(std::string("/nonexistent/file.xml")), 0);
}

TEST(ZvXmlEditing, AttributeAndTextEditsAreSaved) {
    const auto path =
        std::filesystem::temp_directory_path() / ("zv-xml-" + std::to_string(::getpid()) + ".xml");
    {
        ZvXMLDocument doc;
        ASSERT_EQ(doc.Parse(kDocument), 0);
        ZvXmlAttribute kind = doc.RootElement().FirstNode("item").FirstAttribute("kind");
        ASSERT_FALSE(kind.IsAttributeNull());
        kind.SetAttribute("y");
        EXPECT_EQ(kind.Value(), "y");
        doc.RootElement().FirstNode("group").FirstNode("child").SetNodeValue("changed & saved");
        ASSERT_EQ(doc.SaveFile(path.wstring()), 0);
    }
    ZvXMLDocument reread;
    ASSERT_EQ(reread.LoadFile(path.wstring()), 0);
    EXPECT_EQ(reread.RootElement().FirstNode("item").Attribute("kind"), "y");
    EXPECT_EQ(reread.RootElement().FirstNode("group").FirstNode("child").Value(), "changed & saved");
    std::filesystem::remove(path);
}

}  // namespace
