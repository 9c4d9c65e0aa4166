#include "runtime/xml/zv_xml.h"

#include <tinyxml2.h>

#include "runtime/common/strings.h"

namespace {

const char* NameOrNull(const std::string& name) {
    return name.empty() ? nullptr : name.c_str();
}

}  // namespace

std::string ZvXmlAttribute::Name() const {
    return attribute_ ? std::string(attribute_->Name()) : std::string();
}

std::string ZvXmlAttribute::Value() const {
    return attribute_ ? std::string(attribute_->Value()) : std::string();
}

void ZvXmlAttribute::SetAttribute(const std::string& value) {
    if (owner_ == nullptr || attribute_ == nullptr) {
        return;
    }
    const std::string name = attribute_->Name();
    owner_->SetAttribute(name.c_str(), value.c_str());
    attribute_ = owner_->FindAttribute(name.c_str());
}

std::string ZvXmlElement::Name() const {
    return element_ ? std::string(element_->Name()) : std::string();
}

std::string ZvXmlElement::Value() const {
    if (element_ == nullptr) {
        return {};
    }
    const char* text = element_->GetText();
    return text ? std::string(text) : std::string();
}

void ZvXmlElement::SetNodeValue(const std::string& value) {
    if (element_ != nullptr) {
        element_->SetText(value.c_str());
    }
}

ZvXmlElement ZvXmlElement::FirstNode(const std::string& name) const {
    return ZvXmlElement(element_ ? element_->FirstChildElement(NameOrNull(name)) : nullptr);
}

ZvXmlElement ZvXmlElement::NextSiblingElement(const std::string& name) const {
    return ZvXmlElement(element_ ? element_->NextSiblingElement(NameOrNull(name)) : nullptr);
}

ZvXmlAttribute ZvXmlElement::FirstAttribute(const std::string& name) const {
    if (element_ == nullptr) {
        return {};
    }
    return ZvXmlAttribute(element_, element_->FindAttribute(name.c_str()));
}

std::string ZvXmlElement::Attribute(const std::string& name) const {
    return FirstAttribute(name).Value();
}

ZvXMLDocument::ZvXMLDocument() : document_(std::make_unique<tinyxml2::XMLDocument>()) {}

ZvXMLDocument::~ZvXMLDocument() = default;

int ZvXMLDocument::Parse(const std::string& text) {
    return static_cast<int>(document_->Parse(text.data(), text.size()));
}

int ZvXMLDocument::LoadFile(const std::wstring& path) {
    return LoadFile(DE::UnicodeToANSI(path));
}

int ZvXMLDocument::LoadFile(const std::string& path) {
    return static_cast<int>(document_->LoadFile(path.c_str()));
}

int ZvXMLDocument::SaveFile(const std::wstring& path) {
    return SaveFile(DE::UnicodeToANSI(path));
}

int ZvXMLDocument::SaveFile(const std::string& path) {
    return static_cast<int>(document_->SaveFile(path.c_str()));
}

bool ZvXMLDocument::IsDocumentNull() const {
    return document_->RootElement() == nullptr;
}

ZvXmlElement ZvXMLDocument::RootElement() const {
    return ZvXmlElement(document_->RootElement());
}

ZvXmlElement ZvXMLDocument::FirstNode(const std::string& name) const {
    return ZvXmlElement(document_->FirstChildElement(NameOrNull(name)));
}
