#pragma once

#include "xmlrpc/XmlRpcValue.h"

#include <memory>
#include <string>
#include <string_view>

namespace pugi {
class xml_document;
class xml_node;
} // namespace pugi

namespace XmlRpc {

/// A text of XML that was checked before it was parsed: size, elements, nesting, characters, entities. It has
/// no DOCTYPE, so nothing in it expands or loads.
class XmlText {
public:
    /// @throw std::invalid_argument with position and reason
    explicit XmlText(std::string_view text);
    ~XmlText();

    /// The only element of the document.
    pugi::xml_node getRoot() const;
    /// The value that is the root.
    XmlRpcValue readValue() const;

    /// The value of a "value" element.
    /// @throw std::invalid_argument with the reason
    static XmlRpcValue readValue(pugi::xml_node node, unsigned depth = 0);
    /// The child `name` of `node`, which has no other elements.
    /// @throw std::invalid_argument with the reason
    static pugi::xml_node onlyChild(pugi::xml_node node, const char* name);
    /// The text in an element without elements.
    static std::string textOf(pugi::xml_node node);

    /// Appends "<value>...</value>" to `text`.
    static void append(const XmlRpcValue& value, std::string& text, unsigned depth = 0);
    /// Appends `text` with the characters escaped that have a meaning in XML.
    static void appendEscaped(std::string_view plain, std::string& text);
    /// Whether XML can hold the text as it is.
    static bool fits(std::string_view text);

private:
    std::unique_ptr<pugi::xml_document> _document;
};

} // namespace XmlRpc
