#pragma once
// The product's XML wrapper over tinyxml2. A document owns its tree; an element and an attribute are
// small handles into it, copied by value and valid while the document lives. A missing element or
// attribute is a null handle, on which every read yields an empty string and every write does nothing.

#include <memory>
#include <string>

namespace tinyxml2 {
class XMLDocument;
class XMLElement;
class XMLAttribute;
}  // namespace tinyxml2

class ZvXmlAttribute {
  public:
    ZvXmlAttribute() = default;
    ZvXmlAttribute(tinyxml2::XMLElement* owner, const tinyxml2::XMLAttribute* attribute)
        : owner_(owner), attribute_(attribute) {}

    bool IsAttributeNull() const noexcept { return attribute_ == nullptr; }
    std::string Name() const;
    std::string Value() const;
    // Replaces the value of an existing attribute.
    void SetAttribute(const std::string& value);

  private:
    tinyxml2::XMLElement* owner_ = nullptr;
    const tinyxml2::XMLAttribute* attribute_ = nullptr;
};

class ZvXmlElement {
  public:
    ZvXmlElement() = default;
    explicit ZvXmlElement(tinyxml2::XMLElement* element) : element_(element) {}

    bool IsElementNull() const noexcept { return element_ == nullptr; }
    std::string Name() const;
    // The element's text; empty when it has none.
    std::string Value() const;
    void SetNodeValue(const std::string& value);

    // The first child element of that name; with an empty name, the first child element.
    ZvXmlElement FirstNode(const std::string& name) const;
    // The next sibling element of that name; with an empty name, the next sibling element.
    ZvXmlElement NextSiblingElement(const std::string& name) const;

    ZvXmlAttribute FirstAttribute(const std::string& name) const;
    // The attribute's value, empty if absent.
    std::string Attribute(const std::string& name) const;

  private:
    tinyxml2::XMLElement* element_ = nullptr;
};

class ZvXMLDocument {
  public:
    ZvXMLDocument();
    ~ZvXMLDocument();
    ZvXMLDocument(const ZvXMLDocument&) = delete;
    ZvXMLDocument& operator=(const ZvXMLDocument&) = delete;

    // Each returns 0 on success, otherwise the parser's error number.
    int Parse(const std::string& text);
    int LoadFile(const std::wstring& path);
    int LoadFile(const std::string& path);
    int SaveFile(const std::wstring& path);
    int SaveFile(const std::string& path);

    // True when no document with a root element is loaded.
    bool IsDocumentNull() const;
    ZvXmlElement RootElement() const;
    // The first top-level element of that name; with an empty name, the first element.
    ZvXmlElement FirstNode(const std::string& name) const;

  private:
    std::unique_ptr<tinyxml2::XMLDocument> document_;
};
