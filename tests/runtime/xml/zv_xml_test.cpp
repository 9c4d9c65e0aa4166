// The XML wrapper: navigation by name, null handles that read empty, and edits that survive a save.

#include <gtest/gtest.h>

#include "runtime/xml/zv_xml.h"
#include "support/temp_dir.h"

namespace {

constexpr char kDocument[] = R"(<?xml version="1.0"?>
<root>
  <item name="a" kind="x">first</item>
  <other/>
  <item name="b">second</item>
  <group><child>inner</child></group>
</root>)";

TEST(ZvXml, ElementsAreFoundByNameOrAnyWithAnEmptyName) {
    ZvXMLDocument doc;
    ASSERT_EQ(doc.Parse(kDocument), 0);
    const ZvXmlElement root = doc.RootElement();
    EXPECT_EQ(doc.FirstNode("").Name(), "root");
    const ZvXmlElement first = root.FirstNode("item");
    EXPECT_EQ(first.Value(), "first");
    EXPECT_EQ(first.Attribute("name"), "a");
    EXPECT_EQ(first.NextSiblingElement("").Name(), "other");
    EXPECT_EQ(first.NextSiblingElement("item").Attribute("name"), "b");
    EXPECT_TRUE(first.NextSiblingElement("item").NextSiblingElement("item").IsElementNull());
    EXPECT_EQ(root.FirstNode("").Name(), "item");
    EXPECT_EQ(root.FirstNode("group").FirstNode("child").Value(), "inner");
}

// Callers chain lookups without checking each step: a missing element or attribute reads empty and
// takes no writes.
TEST(ZvXml, NullHandlesReadEmptyAndIgnoreWrites) {
    ZvXMLDocument doc;
    ASSERT_EQ(doc.Parse(kDocument), 0);
    ZvXmlElement missing = doc.RootElement().FirstNode("absent");
    EXPECT_EQ(missing.FirstNode("x").NextSiblingElement("x").Value(), "");
    EXPECT_EQ(missing.Attribute("name"), "");
    missing.SetNodeValue("ignored");
    ZvXmlAttribute attribute = doc.RootElement().FirstNode("other").FirstAttribute("name");
    EXPECT_TRUE(attribute.IsAttributeNull());
    attribute.SetAttribute("ignored");
    EXPECT_EQ(doc.RootElement().FirstNode("other").Attribute("name"), "");
}

TEST(ZvXml, MalformedEmptyOrMissingTextFails) {
    ZvXMLDocument doc;
    for (const char* text : {"", "<a><b></a>", "plain text"}) {
        EXPECT_NE(doc.Parse(text), 0) << text;
    }
    EXPECT_TRUE(doc.IsDocumentNull());
    EXPECT_TRUE(doc.RootElement().IsElementNull());
    EXPECT_NE(doc.LoadFile(std::string("/nonexistent/file.xml")), 0);
}

TEST(ZvXml, AttributeAndTextEditsAreSaved) {
    qlb::testing::TempDir dir;
    const auto path = (dir / "edited.xml").wstring();
    {
        ZvXMLDocument doc;
        ASSERT_EQ(doc.Parse(kDocument), 0);
        ZvXmlAttribute kind = doc.RootElement().FirstNode("item").FirstAttribute("kind");
        ASSERT_FALSE(kind.IsAttributeNull());
        kind.SetAttribute("y");
        doc.RootElement().FirstNode("group").FirstNode("child").SetNodeValue("changed & saved");
        ASSERT_EQ(doc.SaveFile(path), 0);
    }
    ZvXMLDocument reread;
    ASSERT_EQ(reread.LoadFile(path), 0);
    EXPECT_EQ(reread.RootElement().FirstNode("item").Attribute("kind"), "y");
    EXPECT_EQ(reread.RootElement().FirstNode("group").FirstNode("child").Value(), "changed & saved");
}

}  // namespace
