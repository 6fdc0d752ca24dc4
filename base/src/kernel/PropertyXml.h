#pragma once

#include "kernel/PropertyTree.h"

#include <string>
#include <string_view>

/// The XML form of a tree: the "struct" of XML-RPC within one root element, so that with the root "value" it
/// is an XML-RPC value. Beyond XML-RPC there are "i8", "u8" (above the signed range) and "nil"; text that XML
/// can't hold is "base64", in a name as the attribute encoding="base64". Private to the kernel.
namespace PropertyXml {

/// @throw InternalError when `rootName` is no XML name or the tree is deeper than parse() accepts
std::string write(const PropertyTree::Tree& tree, const std::string& rootName);

/// Reads what write() writes, and the other integers and untyped text of XML-RPC.
/// @throw InputError with the reason
PropertyTree::Tree parse(std::string_view xml);

} // namespace PropertyXml
