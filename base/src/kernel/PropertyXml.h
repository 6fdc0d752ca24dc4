#pragma once

#include "kernel/PropertyTree.h"

#include <string>
#include <string_view>

/// The XML form of a tree: a struct of XML-RPC, which any client of XML-RPC can read. For what XML-RPC can't
/// tell there are marks: the text "$real:" before "nan", "inf" and "-inf", the text "$natural:" before an
/// integer above the signed range, and "$base64:" before a name that XML can't hold. A text that XML can't
/// hold, or that begins like a mark, is of the type base64. Beyond the first standard there are "i8" and
/// "nil". Private to the kernel.
namespace PropertyXml {

/// Returns what follows "<value>": "<struct>...</struct></value>".
/// @throw InternalError when the tree is deeper than parse() accepts
std::string write(const PropertyTree::Tree& tree);

/// Reads what write() writes, with or without the "<value>" before it, and the other types of XML-RPC.
/// @throw InputError with the reason
PropertyTree::Tree parse(std::string_view xml);

} // namespace PropertyXml
